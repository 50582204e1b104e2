// The library CLI11 splits the words and knows which options take values. The help text and the messages are made here,
// because those of the library differ between its versions and expose its internals.

#include "arguments.h"

#include <CLI/CLI.hpp>

#include <fcntl.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace standin {

namespace {

// Values as typed, before they are converted.
struct TypedValues {
    std::string format = "text";
    std::string strict;
    std::string socketMode = "600";
    std::string readyDescriptor;
};

struct FormatName {
    std::string_view name;
    LogFormat format;
};

class UsageError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

} // namespace

static constexpr int kExitUsage = 2;

static constexpr FormatName kFormatNames[] = {
    {"text", LogFormat::Text}, {"json", LogFormat::Json}, {"commands", LogFormat::Commands}};

// ---- The help text ----

// The name of an option or an operand in the help text and in messages.
static std::string NameOf(const CLI::Option &option)
{
    return option.nonpositional() ? "--" + option.get_lnames().front() : option.get_option_text();
}

static std::string HelpRow(const std::string &term, const std::string &description)
{
    static constexpr size_t kTermWidth = 22;
    const size_t blanks = term.size() < kTermWidth ? kTermWidth - term.size() : 1;
    return "  " + term + std::string(blanks, ' ') + description + "\n";
}

static std::string HelpRows(const CLI::App &app)
{
    std::string rows;
    for (const CLI::Option *option : app.get_options()) {
        if (option->nonpositional()) {
            const std::string shortName = option->get_snames().empty() ? "" : "-" + option->get_snames().front() + ", ";
            rows += HelpRow(shortName + NameOf(*option) + option->get_option_text(), option->get_description());
        }
    }
    return rows;
}

static std::string CommandRows(const CLI::App &app)
{
    std::string rows;
    for (const CLI::App *command : app.get_subcommands({})) {
        rows += HelpRow(command->get_name(), command->get_description());
    }
    return rows.empty() ? "" : "commands:\n" + rows + "\n";
}

static std::string Usage(const CLI::App &app)
{
    std::string required;
    std::string operands = app.get_subcommands({}).empty() ? "" : " COMMAND";
    for (const CLI::Option *option : app.get_options()) {
        if (option->get_required()) {
            (option->nonpositional() ? required : operands) +=
                " " + NameOf(*option) + (option->nonpositional() ? option->get_option_text() : "");
        }
    }
    return required + " [OPTION]..." + operands + app.get_footer();
}

static std::string HelpText(const CLI::App *app, const std::string &name, CLI::AppFormatMode)
{
    return "usage: " + name + Usage(*app) + "\n\n" + app->get_description() + ".\n\n" + CommandRows(*app) +
           "options:\n" + HelpRows(*app);
}

// ---- The options ----

static CLI::Option *AddValue(CLI::App *command, const char *name, std::string *value, const char *kind,
                             const char *help)
{
    return command->add_option(name, *value, help)->option_text(kind)->take_last();
}

static CLI::App *AddCommand(CLI::App *app, const char *name, const char *help)
{
    CLI::App *command = app->add_subcommand(name, help);
    command->set_help_flag("-h,--help", "Show this help text and exit");
    return command;
}

static void AddOutputOptions(CLI::App *command, TypedValues *typed)
{
    AddValue(command, "--format", &typed->format, " FORMAT", "text (the default), json or commands");
    command->add_flag("--strict{violations}", typed->strict, "Exit with status 1 after violations (and warnings)")
        ->option_text("[=warnings]")
        ->take_last();
}

static void AddCapture(CLI::App *command, Settings *settings)
{
    AddValue(command, "--capture", &settings->capturePath, " FILE", "Write requests and replies to FILE for Wireshark");
}

static CLI::App *AddDaemon(CLI::App *app, const char *name, const char *help, Settings *settings, TypedValues *typed)
{
    CLI::App *command = AddCommand(app, name, help);
    AddValue(command, "--socket", &settings->socketPath, " PATH", "Listen on this socket")->required();
    AddValue(command, "--socket-mode", &typed->socketMode, " MODE", "Permissions of the socket in octal; default: 600");
    AddValue(command, "--log", &settings->logPath, " FILE", "Append the log to FILE; default: -, standard output");
    AddOutputOptions(command, typed);
    AddValue(command, "--ready-fd", &typed->readyDescriptor, " N", "Write a newline to descriptor N when ready");
    AddCapture(command, settings);
    return command;
}

static void AddAnswers(CLI::App *command, Settings *settings)
{
    AddValue(command, "--answers", &settings->answersPath, " FILE", "Take answers and faults from this JSON file");
}

static void AddRehearsal(CLI::App *command, Settings *settings)
{
    AddAnswers(command, settings);
    AddValue(command, "--expect", &settings->expectPath, " FILE", "Exit with status 1 unless these requests came");
}

static void AddRehearse(CLI::App *app, Settings *settings, TypedValues *typed)
{
    CLI::App *command = AddCommand(app, "rehearse", "Run a script and answer its requests");
    command->footer(" -- SCRIPT [ARGUMENT]...");
    AddRehearsal(command, settings);
    AddValue(command, "--log", &settings->logPath, " FILE", "Append the log to FILE; default: no log");
    AddOutputOptions(command, typed);
    AddCapture(command, settings);
    command->add_flag("--socket-option", settings->socketOption, "Give plax-tool -s where namespaces are not allowed")
        ->take_last();
}

static void AddCommands(CLI::App *app, Settings *settings, TypedValues *typed)
{
    CLI::App *serve = AddDaemon(app, "serve", "Answer requests until SIGTERM or SIGINT", settings, typed);
    AddRehearsal(serve, settings);
    CLI::App *relay = AddDaemon(app, "relay", "Pass requests on to a daemon until SIGTERM or SIGINT", settings, typed);
    AddValue(relay, "--to", &settings->daemonPath, " PATH", "Socket of the daemon; default: /var/run/plaxd.uds");
    AddAnswers(relay, settings);
    AddValue(relay, "--record", &settings->recordPath, " FILE", "Write what was answered to FILE, an answers file");
    AddRehearse(app, settings, typed);
    CLI::App *decode = AddCommand(app, "decode", "Show what the bytes of a request mean; FILE -: standard input");
    AddValue(decode, "file", &settings->requestPath, "FILE", "")->required();
    AddOutputOptions(decode, typed);
}

// ---- Usage errors ----

// The library would take the word after "--name=" as the value.
static void RefuseNothingAfterEquals(int argumentCount, char **arguments)
{
    for (int i = 1; i < argumentCount && std::string_view(arguments[i]) != "--"; ++i) {
        const std::string word = arguments[i];
        if (word.starts_with("--") && word.find('=') == word.size() - 1) {
            throw UsageError(word.substr(0, word.size() - 1) + " needs a value");
        }
    }
}

// `kind` begins the message about a word that is not an option.
static void RefuseUnknownWords(const CLI::App &app, const char *kind)
{
    for (const std::string &word : app.remaining()) {
        if (word != "--") {
            throw UsageError((word.starts_with("-") ? "unknown option: " : kind) + word);
        }
    }
}

static void RefuseMissingValues(const CLI::App &command)
{
    for (const CLI::Option *option : command.get_options()) {
        if (option->get_required() && option->count() == 0) {
            throw UsageError(NameOf(*option) + " is required");
        }
        for (const std::string &value : option->results()) {
            if (value.empty()) {
                throw UsageError(NameOf(*option) + " needs a value");
            }
        }
    }
}

static LogFormat ReadFormat(const std::string &text)
{
    for (const FormatName &row : kFormatNames) {
        if (row.name == text) {
            return row.format;
        }
    }
    throw UsageError("--format must be text, json or commands, not " + text);
}

static Strictness ReadStrictness(const std::string &text)
{
    if (text == "violations" || text == "warnings") {
        return text == "warnings" ? Strictness::Warnings : Strictness::Violations;
    }
    if (!text.empty()) {
        throw UsageError("--strict must be violations or warnings, not " + text);
    }
    return Strictness::Nothing;
}

static mode_t ReadMode(const std::string &text)
{
    mode_t mode = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), mode, 8);
    if (error != std::errc{} || end != text.data() + text.size() || mode > 0777) {
        throw UsageError("--socket-mode must be octal, from 0 to 777, not " + text);
    }
    return mode;
}

static int ReadDescriptor(const std::string &text)
{
    int number = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (!text.empty() && (error != std::errc{} || end != text.data() + text.size() || fcntl(number, F_GETFD) < 0)) {
        throw UsageError("--ready-fd must be an open descriptor, not " + text);
    }
    return number;
}

// ---- The command line ----

static int ReportUsageError(const CLI::App &app, const UsageError &error)
{
    std::string program = "plaxd-standin";
    for (const CLI::App *command : app.get_subcommands()) {
        program += " " + command->get_name();
    }
    fprintf(stderr, "plaxd-standin: %s\nTry '%s --help'.\n", error.what(), program.c_str());
    return kExitUsage;
}

// Hides the script's words from the library: some of them may be empty, or look like options.
static void TakeScript(int *argumentCount, char **arguments, Settings *settings)
{
    char **end = arguments + *argumentCount;
    char **dashes = std::find_if(arguments, end, [](const char *word) { return std::string_view(word) == "--"; });
    if (*argumentCount < 2 || std::string_view(arguments[1]) != "rehearse" || dashes == end) {
        return;
    }
    settings->script.assign(dashes + 1, end + 1); // including the terminating null
    *argumentCount = static_cast<int>(dashes - arguments);
}

// The library detects a value that is missing at the end of the line, and a value for an option that takes none. All
// other errors are detected here.
static void Parse(CLI::App *app, int argumentCount, char **arguments)
{
    RefuseNothingAfterEquals(argumentCount, arguments);
    try {
        app->parse(argumentCount, arguments);
    } catch (const CLI::ArgumentMismatch &error) {
        const std::string_view what = error.what();
        throw UsageError(std::string(what.substr(0, what.find(':'))) + " needs a value");
    } catch (const CLI::ConversionError &error) {
        const std::string what = error.what();
        const size_t name = what.find("--");
        throw UsageError(what.substr(name, what.find(' ', name) - name) + " takes no value");
    } catch (const CLI::RequiredError &) {
        // What is missing is detected below, after other errors.
    }
    if (app->get_subcommands().empty()) {
        RefuseUnknownWords(*app, "unknown command: ");
        throw UsageError("a command is required");
    }
    const CLI::App &command = *app->get_subcommands().front();
    RefuseUnknownWords(*app, "unexpected argument: ");
    RefuseUnknownWords(command, "unexpected argument: ");
    RefuseMissingValues(command);
}

static void Convert(const CLI::App &app, const TypedValues &typed, Settings *settings)
{
    settings->command = app.got_subcommand("serve")      ? Command::Serve
                        : app.got_subcommand("relay")    ? Command::Relay
                        : app.got_subcommand("rehearse") ? Command::Rehearse
                                                         : Command::Decode;
    if (settings->command == Command::Rehearse && settings->script.size() < 2) {
        throw UsageError("a script is required after --");
    }
    if (settings->command == Command::Rehearse && app.get_subcommand("rehearse")->count("--log") == 0) {
        settings->logPath = "/dev/null";
    }
    settings->format = ReadFormat(typed.format);
    settings->strict = ReadStrictness(typed.strict);
    settings->socketMode = ReadMode(typed.socketMode);
    settings->readyDescriptor = ReadDescriptor(typed.readyDescriptor);
}

std::optional<int> ParseArguments(int argumentCount, char **arguments, Settings *settings)
{
    TypedValues typed;
    CLI::App app("Stand in for plaxd: answer plax-tool on a socket of your choice and log its requests",
                 "plaxd-standin");
    app.formatter_fn(HelpText);
    app.set_help_flag("-h,--help", "Show this help text and exit");
    app.set_version_flag("--version", "plaxd-standin " PLAX_VERSION, "Show the version and exit");
    app.require_subcommand(1);
    app.allow_extras();
    AddCommands(&app, settings, &typed);
    TakeScript(&argumentCount, arguments, settings);
    try {
        Parse(&app, argumentCount, arguments);
        Convert(app, typed, settings);
    } catch (const CLI::Success &request) {
        return app.exit(request);
    } catch (const UsageError &error) {
        return ReportUsageError(app, error);
    }
    return std::nullopt;
}

} // namespace standin
