// plaxd-standin: stands in for plaxd, for rehearsals and tests. This file runs the command that was asked for.

#include "answer_file.h"
#include "arguments.h"
#include "rehearse.h"
#include "relay.h"
#include "serve.h"
#include "server.h"

#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

namespace standin {

static constexpr int kExitFailure = 1;

// A relayed connection takes three descriptors, and the usual limit is meant for programs that select() on them.
static void RaiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

static int StrictStatus(Strictness strict, bool sawViolation, bool sawWarning)
{
    const bool fails =
        (strict != Strictness::Nothing && sawViolation) || (strict == Strictness::Warnings && sawWarning);
    return fails ? kExitFailure : 0;
}

// Waits until the log is written. A signal ends the waiting: nobody may ever read the pipe that the log goes to.
static bool AwaitLog(Log *log, Signals *signals)
{
    pollfd inputs[] = {{log->File().Done().Get(), POLLIN, 0}, {signals->Input().Get(), POLLIN, 0}};
    while ((inputs[0].revents & POLLIN) == 0) {
        const int signal = poll(inputs, std::size(inputs), -1) > 0 ? signals->Next() : 0;
        if (signal == SIGTERM || signal == SIGINT) {
            return false;
        }
    }
    return true;
}

// Ends without the log's thread, which may wait for ever.
[[noreturn]] static void EndAtOnce(Listener *listener, Log *log)
{
    Report("ended by a second signal; lines of the log not written: " + std::to_string(log->File().Waiting()));
    CloseListener(listener);
    _exit(kExitFailure);
}

static int EndLog(const Settings &settings, Log *log)
{
    if (log->File().Lost() > 0) {
        Report("the log could not be written whole");
        return kExitFailure;
    }
    return StrictStatus(settings.strict, log->SawViolation(), log->SawWarning());
}

static void Announce(const Settings &settings)
{
    if (settings.command != Command::Rehearse) {
        Report("listening on " + settings.socketPath);
    } else if (write(settings.readyDescriptor, "", 1) < 0) {
        throw std::runtime_error(SystemError("pipe", errno));
    }
}

using MakeSession = std::function<std::unique_ptr<Session>(Connection connection, const Watch &watch, Log *log)>;

static int RunDaemon(const Settings &settings, const MakeSession &make, const std::function<void()> &reload)
{
    RaiseDescriptorLimit();
    Descriptor logFile = OpenLogFile(settings.logPath);
    Signals signals;
    Log log(settings.logPath, std::move(logFile), settings.format);
    Listener listener = OpenListener(settings.socketPath, settings.socketMode);
    Server server(listener, &signals, &log,
                  [&](Connection connection, const Watch &watch) { return make(std::move(connection), watch, &log); });
    server.OnReload([&] {
        reload();
        log.File().Reopen();
    });
    Announce(settings);
    if (settings.command == Command::Rehearse) {
        log.Start("script", settings.script.front());
    } else {
        log.Start("socket", settings.socketPath);
    }
    const bool served = server.Run();
    log.WriteSummary();
    if (!served || !AwaitLog(&log, &signals)) {
        EndAtOnce(&listener, &log);
    }
    CloseListener(&listener);
    return EndLog(settings, &log);
}

static std::shared_ptr<AnswerBook> ReadAnswers(const Settings &settings)
{
    return std::make_shared<AnswerBook>(settings.answersPath.empty() ? BuiltInAnswers()
                                                                     : ReadAnswerFile(settings.answersPath));
}

static void ReloadAnswers(const Settings &settings, Answers *answers)
{
    try {
        answers->book = ReadAnswers(settings);
    } catch (const std::exception &error) {
        Report(std::string(error.what()) + "\nplaxd-standin: the answers stay as they were");
    }
}

static int Serve(const Settings &settings)
{
    Answers answers{ReadAnswers(settings)};
    const auto make = [&](Connection connection, const Watch &watch, Log *log) {
        static_cast<void>(watch);
        return MakeServeSession(std::move(connection), answers, log);
    };
    return RunDaemon(settings, make, [&] { ReloadAnswers(settings, &answers); });
}

static int Relay(const Settings &settings)
{
    SocketAddress(settings.daemonPath); // a path that no daemon can have is refused before the first client comes
    if (settings.daemonPath == settings.socketPath) {
        throw std::runtime_error(settings.socketPath + ": a relay to itself");
    }
    const auto make = [&](Connection connection, const Watch &watch, Log *log) {
        return MakeRelaySession(std::move(connection), watch, settings.daemonPath, log);
    };
    return RunDaemon(settings, make, [] {});
}

static int RehearseScript(const Settings &settings)
{
    return Rehearse({settings.script, settings.socketOption, [&](const std::string &socketPath, int ready) {
                         Settings own = settings;
                         own.socketPath = socketPath;
                         own.readyDescriptor = ready;
                         return Serve(own);
                     }});
}

static int Decode(const Settings &settings)
{
    std::string bytes;
    const int error = settings.requestPath == "-" ? ReadAll(Descriptor(dup(STDIN_FILENO)), &bytes)
                                                  : ReadFile(settings.requestPath, &bytes);
    if (error != 0) {
        throw std::runtime_error(SystemError(settings.requestPath, error));
    }
    const DecodedRequest request = DecodeRequest({reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()});
    if (printf("%s\n", FormatRequest(request, settings.format).c_str()) < 0 || fflush(stdout) != 0) {
        throw std::runtime_error(SystemError("standard output", errno));
    }
    return StrictStatus(settings.strict, !request.violations.empty(), !request.warnings.empty());
}

static int Run(const Settings &settings)
{
    switch (settings.command) {
    case Command::Serve:
        return Serve(settings);
    case Command::Relay:
        return Relay(settings);
    case Command::Rehearse:
        return RehearseScript(settings);
    case Command::Decode:
        break;
    }
    return Decode(settings);
}

} // namespace standin

int main(int argumentCount, char **arguments)
{
    try {
        standin::Settings settings;
        const std::optional<int> status = standin::ParseArguments(argumentCount, arguments, &settings);
        return status ? *status : standin::Run(settings);
    } catch (const std::exception &error) {
        fprintf(stderr, "plaxd-standin: %s\n", error.what());
        return standin::kExitFailure;
    }
}
