// The harness that runs the tool's layers inside the fuzzing process. It replaces OpenDaemonConnection and the platform
// support library, and gets the tool's calls of malloc, calloc, free, abort, open, send and recv, which the linker
// redirects. So no run touches a file, waits, or ends the process, and each can be repeated exactly.
#ifndef PLAX_FUZZ_HARNESS_H
#define PLAX_FUZZ_HARNESS_H

#include "return_status.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <string>
#include <vector>

// A piece of the daemon's answer. An empty piece is a pause: a blocking receive waits, a non-blocking one gets no data.
using Piece = std::string;

struct Surroundings {
    std::vector<Piece> answer;
    int endError = 0; // the errno of receives after the answer; 0: the daemon closes the connection
    bool refusesConnection = false;
    bool hangsUp = false; // closes the connection before the request is sent
    int openError = 0;    // the errno of opening the output file; 0: it opens
    bool standardOutputClosed = false;
};

// The outcome of a run.
struct Traces {
    bool aborted = false;
    QRT_ReturnStatus status = 0; // of a run that was not aborted
    std::string warnings{};
    std::string standardOutput{};
    std::string outputFile{};
    std::string request{}; // every byte that was sent
    size_t connections = 0;
    bool received = false;
    std::vector<size_t> writtenAtPauses{}; // bytes written to both outputs when a receive began to wait
    size_t unreleased = 0;                 // allocations left to process exit; they live until the next run

    bool operator==(const Traces &) const = default;
};

// Runs `act` with a socket whose other end is the daemon's.
Traces Perform(const Surroundings &surroundings, const std::function<QRT_ReturnStatus(int socket)> &act);

// The harness's text for a status.
std::string StatusText(QRT_ReturnStatus status);

// If the two differ, each stops the process with a message, which is a finding.
void ExpectEqual(const std::string &what, const nlohmann::json &actual, const nlohmann::json &expected);
void ExpectTraces(const Traces &actual, const Traces &expected);

#endif
