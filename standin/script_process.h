// Starting a script, passing signals on to it, and waiting for its end and that of everything it started.
#ifndef PLAX_STANDIN_SCRIPT_PROCESS_H
#define PLAX_STANDIN_SCRIPT_PROCESS_H

#include "descriptor.h"

#include <sys/types.h>

#include <csignal>
#include <functional>
#include <string>
#include <vector>

namespace standin {

// As shells have them.
inline constexpr int kExitNotExecutable = 126;
inline constexpr int kExitNotFound = 127;
inline constexpr int kExitSignal = 128; // and the signal's number is added

// The signals that would end this process, and those that tell of a child's end, read like any other input.
struct TakenSignals {
    Descriptor input;
    sigset_t previous; // the mask that was in force before
};

// From then on processes that lose their parent become children of this one, too.
TakenSignals TakeSignals();

// A signal that has come in already, or 0.
int TakeSignal(const TakenSignals &signals);

// Starts a process that calls `run`, which returns its exit status, with the signals as they were.
pid_t StartProcess(const TakenSignals &signals, const std::function<int()> &run);

// Waits for a child's end. Returns its exit status, or 128 + the signal that killed it.
int AwaitProcess(pid_t process);

// Replaces this process by the program. If that fails, prints a message and returns the exit status.
int Become(const std::vector<char *> &words);

// Waits for the script's end, passing on to it the signals that were sent to this process, and returns what
// AwaitProcess does. Then ends the processes that the script has left running, unless they soon end by
// themselves. `keep` is a child that does not belong to the script.
int RunToEnd(pid_t script, const TakenSignals &signals, pid_t keep);

} // namespace standin

#endif
