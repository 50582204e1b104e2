// The script is in this process's group, so that it can use the terminal. A signal from the terminal reaches both, so
// only signals that were sent by processes are passed on.

#include "script_process.h"

#include <dirent.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <set>
#include <stdexcept>

namespace standin {

using Clock = std::chrono::steady_clock;

// Processes that a script leaves running, for example the rest of a pipeline, usually end by themselves at once.
static constexpr std::chrono::seconds kTimeToEnd{2};

TakenSignals TakeSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        sigaddset(&set, signal);
    }
    TakenSignals signals{Descriptor(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK)), {}};
    if (signals.input.Get() < 0) {
        throw std::runtime_error(SystemError("signalfd", errno));
    }
    sigprocmask(SIG_BLOCK, &set, &signals.previous);
    signal(SIGCHLD, SIG_DFL); // if it is ignored, the exit statuses of children are lost
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    return signals;
}

int TakeSignal(const TakenSignals &signals)
{
    signalfd_siginfo signal{};
    return read(signals.input.Get(), &signal, sizeof signal) == sizeof signal ? static_cast<int>(signal.ssi_signo) : 0;
}

// ---- The start ----

pid_t StartProcess(const TakenSignals &signals, const std::function<int()> &run)
{
    const pid_t process = fork();
    if (process < 0) {
        throw std::runtime_error(SystemError("fork", errno));
    }
    if (process > 0) {
        return process;
    }
    int status = 1;
    try {
        sigprocmask(SIG_SETMASK, &signals.previous, nullptr);
        status = run();
    } catch (const std::exception &error) {
        Report(error.what());
    }
    _exit(status);
}

int Become(const std::vector<char *> &words)
{
    execvp(words.front(), words.data());
    const int error = errno;
    Report(SystemError(words.front(), error));
    return error == ENOENT ? kExitNotFound : kExitNotExecutable;
}

// ---- The end ----

static int ExitStatus(int status)
{
    return WIFSIGNALED(status) ? kExitSignal + WTERMSIG(status) : WEXITSTATUS(status);
}

int AwaitProcess(pid_t process)
{
    int status = 0;
    while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
    return ExitStatus(status);
}

static void PassOn(pid_t script, const TakenSignals &signals)
{
    signalfd_siginfo signal{};
    while (read(signals.input.Get(), &signal, sizeof signal) == sizeof signal) {
        if (signal.ssi_signo != SIGCHLD && signal.ssi_code != SI_KERNEL) {
            kill(script, static_cast<int>(signal.ssi_signo));
        }
    }
}

static int AwaitScript(pid_t script, const TakenSignals &signals)
{
    int status = 0;
    while (waitpid(script, &status, WNOHANG) == 0) {
        pollfd input{signals.input.Get(), POLLIN, 0};
        poll(&input, 1, -1);
        PassOn(script, signals);
    }
    return ExitStatus(status);
}

// The parent of a process, or 0 if the process no longer exists.
static pid_t ParentOf(const char *pid)
{
    std::string text;
    ReadFile(std::string("/proc/") + pid + "/stat", &text);
    // The name before the last parenthesis may contain any character.
    const size_t name = text.rfind(')');
    char state = 0;
    pid_t parent = 0;
    return name != std::string::npos && sscanf(text.c_str() + name, ") %c %d", &state, &parent) == 2 ? parent : 0;
}

static std::vector<pid_t> ChildrenExcept(pid_t keep)
{
    std::vector<pid_t> children;
    DIR *processes = opendir("/proc");
    while (const dirent *entry = processes != nullptr ? readdir(processes) : nullptr) {
        const auto pid = static_cast<pid_t>(strtol(entry->d_name, nullptr, 10));
        if (pid > 0 && pid != keep && ParentOf(entry->d_name) == getpid()) {
            children.push_back(pid);
        }
    }
    if (processes != nullptr) {
        closedir(processes);
    }
    return children;
}

// Reaps the children that have ended and returns the others. When one ends, this process inherits its children.
static std::vector<pid_t> LeftBehind(pid_t keep)
{
    std::vector<pid_t> left = ChildrenExcept(keep);
    std::erase_if(left, [](pid_t pid) { return waitpid(pid, nullptr, WNOHANG) == pid; });
    return left;
}

// Sends the signal once to each child and waits until all have ended, or until the time is over.
static bool AllEnd(pid_t keep, int signal, Clock::duration time)
{
    static constexpr int kLookAgainMs = 10;
    std::set<pid_t> signalled;
    for (const Clock::time_point end = Clock::now() + time; Clock::now() < end; poll(nullptr, 0, kLookAgainMs)) {
        const std::vector<pid_t> left = LeftBehind(keep);
        for (const pid_t process : left) {
            if (signalled.insert(process).second) {
                kill(process, signal);
            }
        }
        if (left.empty()) {
            return true;
        }
    }
    return false;
}

static void EndLeftBehind(pid_t keep)
{
    if (AllEnd(keep, 0, kTimeToEnd)) {
        return;
    }
    Report("ending what the script left running");
    if (!AllEnd(keep, SIGTERM, kTimeToEnd)) {
        AllEnd(keep, SIGKILL, kTimeToEnd);
    }
}

int RunToEnd(pid_t script, const TakenSignals &signals, pid_t keep)
{
    const int status = AwaitScript(script, signals);
    EndLeftBehind(keep);
    return status;
}

} // namespace standin
