// plaxd-standin: stands in for plaxd, for rehearsals and tests. This file runs the command that was asked for.

#include "answer_file.h"
#include "arguments.h"
#include "connections.h"
#include "rehearse.h"
#include "relay.h"
#include "serve.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
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

static int EndLog(const Settings &settings, Log *log)
{
    log->WriteSummary();
    if (!log->Complete()) {
        fprintf(stderr, "plaxd-standin: the log could not be written whole\n");
        return kExitFailure;
    }
    return StrictStatus(settings.strict, log->SawViolation(), log->SawWarning());
}

static void Announce(const Settings &settings)
{
    if (settings.command != Command::Rehearse) {
        fprintf(stderr, "plaxd-standin: listening on %s\n", settings.socketPath.c_str());
    } else if (write(settings.readyDescriptor, "", 1) < 0) {
        throw std::runtime_error(SystemError("pipe", errno));
    }
}

static int RunDaemon(const Settings &settings, const std::function<void(Connection &, Log *)> &handle)
{
    BlockEndSignals();
    signal(SIGPIPE, SIG_IGN);
    RaiseDescriptorLimit();
    Log log(settings.logPath, settings.format);
    Listener listener = OpenListener(settings.socketPath, settings.socketMode);
    Announce(settings);
    ServeConnections(listener, [&](Connection &connection) { handle(connection, &log); });
    CloseListener(&listener);
    return EndLog(settings, &log);
}

static int Serve(const Settings &settings)
{
    AnswerBook book = settings.answersPath.empty() ? BuiltInAnswers() : ReadAnswerFile(settings.answersPath);
    return RunDaemon(settings, [&](Connection &connection, Log *log) { ServeConnection(connection, &book, log); });
}

static int Relay(const Settings &settings)
{
    SocketAddress(settings.daemonPath); // a path that no daemon can have is refused before the first client comes
    if (settings.daemonPath == settings.socketPath) {
        throw std::runtime_error(settings.socketPath + ": a relay to itself");
    }
    return RunDaemon(settings,
                     [&](Connection &connection, Log *log) { RelayConnection(connection, settings.daemonPath, log); });
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
