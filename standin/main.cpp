// plaxd-standin takes the place of plaxd, for rehearsals and tests. This file runs the chosen command.

#include "answer_file.h"
#include "answering_relay.h"
#include "arguments.h"
#include "capture.h"
#include "expectations.h"
#include "recorder.h"
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
#include <new>
#include <stdexcept>
#include <string>

namespace standin {

static constexpr int kExitFailure = 1;

// A relayed connection takes two descriptors. The usual limit of 1024 protects programs that use select().
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

// How long the log may take after a second signal, because it may be nearly written.
static constexpr int kLastPatienceMs = 200;

// Waits until the log is written. A signal ends the wait, because the log may go to a pipe that nobody reads.
static bool AwaitLog(Log *log, Signals *signals)
{
    pollfd inputs[] = {{log->File().Done().Get(), POLLIN, 0}, {signals->Input().Get(), POLLIN, 0}};
    while ((inputs[0].revents & POLLIN) == 0) {
        const int signal = poll(inputs, std::size(inputs), -1) > 0 ? signals->Next() : 0;
        if (signal == SIGTERM || signal == SIGINT) {
            return poll(inputs, 1, kLastPatienceMs) == 1;
        }
    }
    return true;
}

// Called when an allocation fails. Unwinding would not help: the destructors of some values allocate, too.
[[noreturn]] static void EndWithoutMemory()
{
    fputs("plaxd-standin: out of memory; what was not written yet is lost\n", stderr);
    RemoveCurrentSocketFile();
    _exit(kExitFailure);
}

// Exits without joining the log's thread, which may be blocked for ever.
[[noreturn]] static void EndAtOnce(Listener *listener, Log *log)
{
    Report("ended by a second signal; lines of the log not written: " + std::to_string(log->File().Waiting()));
    listener->Close();
    _exit(kExitFailure);
}

namespace {

// The files written besides the log; null if not asked for.
struct Outputs {
    std::unique_ptr<Capture> capture;
    std::unique_ptr<Recorder> recorder;
};

} // namespace

static Outputs OpenOutputs(const Settings &settings)
{
    Outputs outputs;
    if (!settings.capturePath.empty()) {
        outputs.capture = std::make_unique<Capture>(settings.capturePath);
    }
    if (!settings.recordPath.empty()) {
        outputs.recorder = std::make_unique<Recorder>(settings.recordPath);
    }
    return outputs;
}

static void Connect(const Outputs &outputs, Log *log)
{
    for (Witness *witness :
         {static_cast<Witness *>(outputs.capture.get()), static_cast<Witness *>(outputs.recorder.get())}) {
        if (witness != nullptr) {
            log->AddWitness(witness);
        }
    }
}

static void WriteRecording(const Outputs &outputs)
{
    if (outputs.recorder != nullptr) {
        outputs.recorder->Write();
    }
}

static bool HaveFailed(const Outputs &outputs)
{
    return (outputs.capture != nullptr && outputs.capture->HasFailed()) ||
           (outputs.recorder != nullptr && outputs.recorder->HasFailed());
}

static int EndLog(const Settings &settings, Log *log, const Outputs &outputs)
{
    if (log->File().Lost() > 0) {
        Report("the log could not be written whole");
        return kExitFailure;
    }
    if (HaveFailed(outputs)) {
        return kExitFailure;
    }
    return StrictStatus(settings.strict, log->SawViolation(), log->SawWarning());
}

static void Announce(const Settings &settings)
{
    if (settings.command != Command::Rehearse) {
        Report("listening on " + settings.socketPath);
    }
    if (settings.readyDescriptor < 0) {
        return;
    }
    Descriptor ready(settings.readyDescriptor);
    if (write(ready.Get(), "\n", 1) < 0) {
        Report(SystemError("descriptor " + std::to_string(settings.readyDescriptor), errno));
    }
    ready.Close();
    OccupyStandardDescriptors();
}

namespace {

// The differences between serving and relaying.
struct Daemon {
    std::function<std::unique_ptr<Session>(Connection connection, const Watch &watch, Log *log)> make;
    std::function<void()> reload = [] {};
    Log::Observer observe = [](const LogEntry &, LogEvent) {};
    std::function<bool()> judge = [] { return true; }; // at the end: was everything as expected?
};

} // namespace

static int RunDaemon(const Settings &settings, const Daemon &daemon)
{
    std::set_new_handler(EndWithoutMemory);
    RaiseDescriptorLimit();
    Descriptor logFile = OpenLogFile(settings.logPath);
    const Outputs outputs = OpenOutputs(settings);
    Signals signals;
    Log log(settings.logPath, std::move(logFile), settings.format);
    Connect(outputs, &log);
    Listener listener(settings.socketPath, settings.socketMode);
    Server server(listener, &signals, &log, [&](Connection connection, const Watch &watch) {
        return daemon.make(std::move(connection), watch, &log);
    });
    log.Observe(daemon.observe);
    server.OnReload([&] {
        daemon.reload();
        log.File().Reopen();
        WriteRecording(outputs);
    });
    Announce(settings);
    if (settings.command == Command::Rehearse) {
        log.Start("script", settings.script.front());
    } else {
        log.Start("socket", settings.socketPath);
    }
    server.Run();
    WriteRecording(outputs);
    log.WriteSummary();
    if (!AwaitLog(&log, &signals)) {
        EndAtOnce(&listener, &log);
    }
    const int status = EndLog(settings, &log, outputs);
    return daemon.judge() ? status : kExitFailure;
}

static std::shared_ptr<AnswerBook> ReadAnswers(const Settings &settings)
{
    const bool canPass = settings.command == Command::Relay;
    return std::make_shared<AnswerBook>(settings.answersPath.empty() ? BuiltInAnswers()
                                                                     : ReadAnswerFile(settings.answersPath, canPass));
}

static void ReloadAnswers(const Settings &settings, Answers *answers)
{
    try {
        answers->book = ReadAnswers(settings);
    } catch (const std::exception &error) {
        Report(std::string(error.what()) + "\nthe answers stay as they were");
    }
}

namespace {

struct Inputs {
    Answers answers;
    Expectations expectations;
};

} // namespace

// Returns the message of the exception, or nothing.
static std::string ErrorsOf(const std::function<void()> &read)
{
    try {
        read();
    } catch (const std::exception &error) {
        return error.what();
    }
    return {};
}

// Reports the errors of both files together.
static Inputs ReadInputs(const Settings &settings)
{
    Inputs inputs;
    std::string errors = ErrorsOf([&] { inputs.answers.book = ReadAnswers(settings); });
    if (!settings.expectPath.empty()) {
        const std::string more = ErrorsOf([&] { inputs.expectations = ReadExpectations(settings.expectPath); });
        errors.append(errors.empty() || more.empty() ? "" : "\n").append(more);
    }
    if (!errors.empty()) {
        throw std::runtime_error(errors);
    }
    return inputs;
}

static bool GaveAllAnswers(const Settings &settings, const AnswerBook &book)
{
    const std::vector<std::string> unused = UnusedAnswers(book);
    for (const std::string &place : unused) {
        Report(settings.answersPath + ": " + place + ": the answer was never given");
    }
    return unused.empty();
}

static int Serve(const Settings &settings)
{
    Inputs inputs = ReadInputs(settings);
    RequestList requests;
    Daemon daemon;
    daemon.make = [&](Connection connection, const Watch & /*watch*/, Log *log) {
        return MakeServeSession(std::move(connection), inputs.answers, log);
    };
    daemon.reload = [&] { ReloadAnswers(settings, &inputs.answers); };
    if (!settings.expectPath.empty()) {
        daemon.observe = [&](const LogEntry &entry, LogEvent event) { NoteRequest(entry, event, &requests); };
        daemon.judge = [&] {
            const bool met = MeetExpectations(inputs.expectations, requests.commands);
            return GaveAllAnswers(settings, *inputs.answers.book) && met;
        };
    }
    return RunDaemon(settings, daemon);
}

static int Relay(const Settings &settings)
{
    SocketAddress(settings.daemonPath); // throws for an impossible path, before the first client comes
    if (settings.daemonPath == settings.socketPath) {
        throw std::runtime_error(settings.socketPath + ": a relay to itself");
    }
    Daemon daemon;
    daemon.make = [&](Connection connection, const Watch &watch, Log *log) {
        return MakeRelaySession(std::move(connection), watch, settings.daemonPath, log);
    };
    Answers answers;
    if (!settings.answersPath.empty()) {
        answers.book = ReadAnswers(settings);
        daemon.make = [&](Connection connection, const Watch &watch, Log *log) {
            return MakeAnsweringRelaySession(std::move(connection), watch, answers, settings.daemonPath, log);
        };
        daemon.reload = [&] { ReloadAnswers(settings, &answers); };
    }
    return RunDaemon(settings, daemon);
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
        standin::OccupyStandardDescriptors();
        standin::Settings settings;
        const std::optional<int> status = standin::ParseArguments(argumentCount, arguments, &settings);
        return status ? *status : standin::Run(settings);
    } catch (const std::exception &error) {
        standin::Report(error.what());
        return standin::kExitFailure;
    }
}
