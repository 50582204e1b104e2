// What a run must make of the daemon's answer, worked out from the answer as a whole and not call by call.
#ifndef PLAX_FUZZ_REPLY_MODEL_H
#define PLAX_FUZZ_REPLY_MODEL_H

#include "stage.h"

#include <optional>
#include <string>
#include <vector>

struct Reply {
    uint32_t length;
    std::optional<std::string> payload;
};

// What receiving a frame gives. Without a reply, the outputs of the receiving function keep what they held.
struct ReceivedFrame {
    QRT_ReturnStatus status = 0;
    std::string warnings;
    std::optional<Reply> reply;
};

// What a run must leave behind once the request has been sent.
struct Consequences {
    QRT_ReturnStatus status = 0;
    std::string warnings;
    std::string standardOutput;
    std::string outputFile;
    std::vector<size_t> writtenAtPauses;
    size_t unreleased = 0;
};

// The classes of commands: P prints a framed reply, C checks one, N reads nothing, S streams, A streams for all objects
// and prints for one.

// The payload's length that a frame's header announces.
uint32_t AnnouncedLength(const DaemonScript &daemon);

ReceivedFrame PredictFrame(const DaemonScript &daemon);
Consequences PredictReply(char commandClass, bool all, bool toFile, const Surroundings &surroundings);
Consequences PredictSendFailure(char commandClass, QRT_ReturnStatus sendStatus);

void ExpectConsequences(const Traces &traces, const Consequences &expected);

#endif
