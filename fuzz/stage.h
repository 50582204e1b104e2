// The stage on which the tool's rooms run inside the fuzzing process: a daemon that follows a script, and everything
// around the tool that a run can touch, recorded. The stage takes the place of OpenDaemonConnection and of the platform
// support library, and stands between the tool and malloc, calloc, free, abort, open and recv, which the linker leads
// here. So no run touches a file, waits for time to pass or ends the process, and each can be repeated exactly.
#ifndef PLAX_FUZZ_STAGE_H
#define PLAX_FUZZ_STAGE_H

#include "return_status.h"

#include <ctime>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// A piece of the daemon's answer, which the tool can receive only when it has received all the pieces before it. An
// empty one is a pause: a receive that may wait is kept waiting, one that may not finds nothing.
using Piece = std::string;

struct DaemonScript {
    bool refusesConnection = false;
    bool hangsUp = false; // closes the connection before the request comes
    std::vector<Piece> answer;
    int endError = 0; // the errno of receives after the answer; 0: the daemon closes the connection
};

struct Surroundings {
    DaemonScript daemon;
    int openError = 0; // the errno of opening the output file; 0: it opens
    bool standardOutputClosed = false;
};

// What a run has left behind.
struct Traces {
    bool aborted = false;
    QRT_ReturnStatus status = 0; // of a run that was not aborted
    std::string warnings;
    std::string standardOutput;
    std::string outputFile;
    std::string request;                  // every byte that the daemon got
    std::vector<std::string> socketPaths; // of each connection
    std::vector<time_t> receiveTimeouts;  // of each connection
    std::vector<std::string> openedPaths;
    size_t receives = 0;
    std::vector<size_t> writtenAtPauses; // bytes written to both outputs when a receive began to wait
    size_t unreleased = 0;               // allocations that were left to process exit
};

// Performs `act` on the stage, with a socket whose other end is the daemon's.
Traces Perform(const Surroundings &surroundings, const std::function<QRT_ReturnStatus(int socket)> &act);

// The text that the stage's platform gives for a status.
std::string StatusText(QRT_ReturnStatus status);

// The status that wraps an errno.
QRT_ReturnStatus WrappedError(int error);

// Each stops the process with a message, which is a finding, unless the two are equal.
void ExpectEqual(std::string_view what, std::string_view actual, std::string_view expected);
void ExpectEqual(std::string_view what, unsigned long long actual, unsigned long long expected);

[[noreturn]] void Fail(std::string_view what);

#endif
