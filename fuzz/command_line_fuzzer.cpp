// Fuzzes whole runs from the argument vector to the exit status.
//
// An input's first line holds letters for what the daemon does: c refuses the connection, h hangs up before the request
// comes, e answers with an error, z closes without an answer, b cannot have its output file opened. The other lines are
// the argument vector, beginning with the program's name. A "*" and a number in a line stand for that many characters
// of a list.
//
// What must hold: a usage error shows its message and the help text and reaches no daemon; a request decodes to what
// the options and words ask for; status, outputs and messages are those that the daemon's answer calls for; and only
// what is left to process exit on purpose stays unreleased.

#include "command_line_model.h"
#include "input.h"
#include "reply_model.h"
#include "request_decoder.h"
#include "stage.h"

#include "driver.h"
#include "help_text.h"
#include "options.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

static constexpr size_t kListCharactersMax = 100000;
static constexpr uint32_t kUsageStatus = 0xbad0001;

// Replaces the first "*" and the number behind it.
static std::string ExpandWord(std::string_view line)
{
    const size_t star = line.find('*');
    if (star == line.npos) {
        return std::string(line.substr(0, line.find('\0')));
    }
    const std::string number(line.substr(star + 1));
    char *end = nullptr;
    const size_t count = std::min<size_t>(strtoul(number.c_str(), &end, 10), kListCharactersMax);
    const std::string word = std::string(line.substr(0, star)) + std::string(count, 'a') + end;
    return word.substr(0, word.find('\0'));
}

static std::vector<std::string> ReadWords(std::string_view input)
{
    std::vector<std::string> words;
    do {
        words.push_back(ExpandWord(TakeLine(&input)));
    } while (!input.empty());
    return words;
}

static Surroundings ReadSurroundings(std::string_view letters)
{
    Surroundings surroundings;
    surroundings.daemon.refusesConnection = Has(letters, 'c');
    surroundings.daemon.hangsUp = Has(letters, 'h');
    surroundings.openError = Has(letters, 'b') ? ENOENT : 0;
    if (Has(letters, 'e')) {
        surroundings.daemon.answer = {std::string("\0\0\0\5\0\0\0\4", 8), "busy"};
    } else if (!Has(letters, 'z')) {
        surroundings.daemon.answer = {std::string("\0\0\0\0\0\0\0\3", 8), "", "abc"};
    }
    return surroundings;
}

static QRT_ReturnStatus ParseOnly(ArgumentVector *vector, CommandSettings *settings)
{
    return static_cast<QRT_ReturnStatus>(ParseOptions(vector->Count(), vector->pointers.data(), settings));
}

// Texts that are null are as good as empty once it is known whether they were given.
static std::string TextOrEmpty(const char *text)
{
    return text == nullptr ? "" : text;
}

static void ExpectSettings(const CommandSettings &actual, const ModelSettings &expected)
{
    ExpectEqual("uuid", AsText(actual.uuid.bytes, sizeof actual.uuid.bytes),
                AsText(expected.uuid.data(), expected.uuid.size()));
    ExpectEqual("uuidGiven", actual.uuidGiven, expected.uuidGiven);
    ExpectEqual("uuidOrModeCount", static_cast<unsigned>(actual.uuidOrModeCount), expected.uuidOrModeCount);
    ExpectEqual("all", static_cast<unsigned>(actual.all), expected.all ? 1 : 0);
    ExpectEqual("decomMode", actual.decomMode, expected.decomMode);
    ExpectEqual("ensureDurability", actual.ensureDurability, expected.ensureDurability ? 1 : 0);
    ExpectEqual("wipeDisk", actual.wipeDisk, expected.wipeDisk ? 1 : 0);
    ExpectEqual("reason", actual.reason, expected.reason);
    ExpectEqual("recoveryMode", actual.recoveryMode, expected.recoveryMode);
    ExpectEqual("exclusionMode", actual.exclusionMode, expected.exclusionMode);
    ExpectEqual("workItemType", actual.workItemType, expected.workItemType);
    ExpectEqual("jsonGiven", actual.jsonGiven, expected.json.has_value());
    ExpectEqual("filePath", actual.filePath, expected.filePath);
    ExpectEqual("uuidListGiven", actual.uuidListGiven, expected.uuidList.has_value());
    ExpectEqual("uuidList", actual.uuidList, expected.uuidList.value_or(""));
    ExpectEqual("destinationListGiven", actual.destinationListGiven, expected.destinationList.has_value());
    ExpectEqual("destinationList", actual.destinationList, expected.destinationList.value_or(""));
    ExpectEqual("exclusionListGiven", actual.exclusionListGiven, expected.exclusionList.has_value());
    ExpectEqual("exclusionList", actual.exclusionList, expected.exclusionList.value_or(""));
    ExpectEqual("outputPath", TextOrEmpty(actual.outputPath), expected.outputPath.value_or(""));
    ExpectEqual("socketPath", actual.socketPath, expected.socketPath);
    ExpectEqual("longOptionIndex", static_cast<unsigned>(actual.longOptionIndex),
                static_cast<unsigned>(expected.longOptionIndex));
}

// The settings of a command line that is parsed to its end.
static void CheckSettings(const std::vector<std::string> &words, const ModelRun &expected)
{
    static char destinationList[kUuidListCapacity];
    static char exclusionList[kUuidListCapacity];
    destinationList[0] = exclusionList[0] = '\0';
    CommandSettings settings;
    settings.destinationList = destinationList;
    settings.exclusionList = exclusionList;
    ArgumentVector vector(words);
    optind = 0;
    const Traces traces = Perform({}, [&](int) { return ParseOnly(&vector, &settings); });
    ExpectEqual("the outcome of parsing", traces.status, static_cast<unsigned>(ParseOutcome::Parsed));
    ExpectEqual("the copies of JSON texts", traces.unreleased, expected.settings.jsonCount);
    ExpectSettings(settings, expected.settings);
}

// The listing that every usage error shows, without its header.
static const std::string &Listing()
{
    static const std::string listing = [] {
        const Traces traces = Perform({}, [](int) {
            PrintUsage("name");
            return 0U;
        });
        return traces.standardOutput.substr(strlen("usage: name <options> <cmd> <args>\n"));
    }();
    return listing;
}

static void ExpectNoDaemon(const Traces &traces)
{
    ExpectEqual("the number of connections", traces.socketPaths.size(), 0);
    ExpectEqual("what was sent", traces.request, "");
}

// A run that ends before it would connect.
static void CheckEarlyEnd(const Traces &traces, const ModelRun &expected, const std::string &programName)
{
    ExpectNoDaemon(traces);
    ExpectEqual("whether the run was aborted", traces.aborted, expected.end == ModelEnd::Abort);
    ExpectEqual("the messages", traces.warnings, expected.warnings);
    if (expected.end == ModelEnd::Abort) {
        ExpectEqual("standard output", traces.standardOutput, "");
        return;
    }
    ExpectEqual("the status", traces.status, expected.end == ModelEnd::Help ? 0 : kUsageStatus);
    ExpectEqual("standard output", traces.standardOutput,
                "usage: " + programName + " <options> <cmd> <args>\n" + Listing());
    ExpectEqual("the number of allocations left to process exit", traces.unreleased, expected.settings.jsonCount);
}

static Consequences PredictExchange(const ModelRun &run, const Surroundings &surroundings)
{
    if (surroundings.daemon.refusesConnection) {
        Consequences refused; // perror says why, and there is no help text
        refused.status = kUsageStatus;
        return refused;
    }
    if (surroundings.daemon.hangsUp) {
        return PredictSendFailure(run.command.commandClass, WrappedError(EPIPE));
    }
    return PredictReply(run.command.commandClass, run.settings.all, run.settings.outputPath.has_value(), surroundings);
}

static void CheckExchange(const Traces &traces, const ModelRun &expected, const Surroundings &surroundings)
{
    ExpectEqual("the number of connections", traces.socketPaths.size(), 1);
    ExpectEqual("the socket path", traces.socketPaths[0], expected.settings.socketPath);
    ExpectEqual("the receive timeout", static_cast<unsigned long long>(traces.receiveTimeouts[0]),
                static_cast<unsigned long long>(expected.command.receiveTimeoutSec));
    for (const std::string &path : traces.openedPaths) {
        ExpectEqual("the path of the output file", path, expected.settings.outputPath.value_or(""));
    }
    Consequences consequences = PredictExchange(expected, surroundings);
    consequences.unreleased += expected.settings.jsonCount;
    ExpectConsequences(traces, consequences);
    if (surroundings.daemon.refusesConnection || surroundings.daemon.hangsUp) {
        ExpectEqual("what was sent", traces.request, "");
    } else {
        ExpectRequest(traces.request, expected);
    }
    if (expected.command.commandClass == 'N') {
        ExpectEqual("the number of receives", traces.receives, 0);
    }
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    opterr = 0;
    unsetenv("POSIXLY_CORRECT");
    std::string_view input = AsText(data, size);
    const Surroundings surroundings = ReadSurroundings(TakeLine(&input));
    const std::vector<std::string> words = ReadWords(input);
    const ModelRun expected = PredictCommandLine(words);
    if (expected.end == ModelEnd::Connection) {
        CheckSettings(words, expected);
    }
    ArgumentVector vector(words);
    optind = 0;
    const Traces traces = Perform(surroundings, [&](int) { return RunTool(vector.Count(), vector.pointers.data()); });
    if (expected.end == ModelEnd::Connection) {
        CheckExchange(traces, expected, surroundings);
    } else {
        CheckEarlyEnd(traces, expected, words[0]);
    }
    return 0;
}
