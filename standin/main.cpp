// plaxd-standin: stands in for plaxd, for rehearsals and tests. This file is its command line.

#include "answer_file.h"
#include "connections.h"
#include "log.h"
#include "relay.h"
#include "serve.h"

#include <CLI/CLI.hpp>

#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>

namespace standin {

namespace {

struct Settings {
    std::string socketPath;
    std::string answersPath; // empty: the built-in answers
    std::string daemonPath = "/var/run/plaxd.uds";
    std::string requestPath; // of the bytes to decode
    std::string logPath = "-";
    LogFormat format = LogFormat::Text;
    bool strict = false;
};

} // namespace

static constexpr int kExitFailure = 1;
static constexpr int kExitUsage = 2;

// A relayed connection takes three descriptors, and the usual limit is meant for programs that select() on them.
static void RaiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

static int EndLog(const Settings &settings, Log *log)
{
    log->WriteSummary();
    if (!log->Complete()) {
        fprintf(stderr, "plaxd-standin: the log could not be written whole\n");
        return kExitFailure;
    }
    return settings.strict && log->SawViolation() ? kExitFailure : 0;
}

static int RunDaemon(const Settings &settings, const std::function<void(Connection &, Log *)> &handle)
{
    BlockEndSignals();
    signal(SIGPIPE, SIG_IGN);
    RaiseDescriptorLimit();
    Log log(settings.logPath, settings.format);
    Listener listener = OpenListener(settings.socketPath);
    fprintf(stderr, "plaxd-standin: listening on %s\n", settings.socketPath.c_str());
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
    if (settings.daemonPath == settings.socketPath) {
        throw std::runtime_error(settings.socketPath + ": a relay to itself");
    }
    return RunDaemon(settings,
                     [&](Connection &connection, Log *log) { RelayConnection(connection, settings.daemonPath, log); });
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
    return settings.strict && !request.violations.empty() ? kExitFailure : 0;
}

static void AddOutputOptions(CLI::App *command, Settings *settings)
{
    const std::map<std::string, LogFormat> formats = {{"text", LogFormat::Text}, {"json", LogFormat::Json}};
    command->add_option("--format", settings->format, "text or json")
        ->transform(CLI::CheckedTransformer(formats))
        ->option_text("FORMAT [text]");
    command->add_flag("--strict", settings->strict, "End with status 1 when a request broke the protocol");
}

static CLI::App *AddDaemon(CLI::App *app, const char *name, const char *help, Settings *settings)
{
    CLI::App *command = app->add_subcommand(name, help);
    command->add_option("--socket", settings->socketPath, "Socket to listen on; always needed")
        ->required()
        ->option_text("PATH");
    command->add_option("--log", settings->logPath, "File to append the log to; -: standard output")
        ->option_text("FILE [-]");
    AddOutputOptions(command, settings);
    return command;
}

static int Run(int argumentCount, char **arguments)
{
    Settings settings;
    CLI::App app("Stands in for plaxd: answers plax-tool on a socket of your choice and logs what it asks.",
                 "plaxd-standin");
    app.require_subcommand(1);
    CLI::App *serve = AddDaemon(&app, "serve", "Answer requests until SIGTERM or SIGINT", &settings);
    serve->add_option("--answers", settings.answersPath, "JSON file of answers and faults; none: plain answers")
        ->option_text("FILE");
    CLI::App *relay = AddDaemon(&app, "relay", "Pass requests on to a daemon until SIGTERM or SIGINT", &settings);
    relay->add_option("--to", settings.daemonPath, "Socket of the daemon")->option_text("PATH [/var/run/plaxd.uds]");
    CLI::App *decode = app.add_subcommand("decode", "Show what the bytes of a request mean");
    decode->add_option("file", settings.requestPath, "File of the bytes; -: standard input")->required();
    AddOutputOptions(decode, &settings);
    try {
        app.parse(argumentCount, arguments);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : kExitUsage;
    }
    return serve->parsed() ? Serve(settings) : relay->parsed() ? Relay(settings) : Decode(settings);
}

} // namespace standin

int main(int argumentCount, char **arguments)
{
    try {
        return standin::Run(argumentCount, arguments);
    } catch (const std::exception &error) {
        fprintf(stderr, "plaxd-standin: %s\n", error.what());
        return standin::kExitFailure;
    }
}
