// Compares the settings from the tool's own parser with the request as the stand-in's decoder reads it. The decoder has
// its own table of the protocol.

#include "run_property.h"

#include "command_settings.h"
#include "command_table.h"
#include "decoder.h"
#include "driver.h"
#include "options.h"
#include "protocol_table.h"

#include <getopt.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

using Json = nlohmann::json;

// The command line after the tool's parser.
struct Parsed {
    std::vector<std::string> words; // options first
    CommandSettings settings;
    size_t commandIndex = 0;
    ParseOutcome outcome = ParseOutcome::Failed;
    Traces traces;
};

// An argument vector. getopt_long moves only its pointers.
static std::vector<char *> Pointers(std::vector<std::string> *words)
{
    std::vector<char *> pointers;
    for (std::string &word : *words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    optind = 0; // restarts getopt_long
    return pointers;
}

static Parsed Parse(std::vector<std::string> words)
{
    static char destinationList[kUuidListCapacity];
    static char exclusionList[kUuidListCapacity];
    destinationList[0] = exclusionList[0] = '\0';
    static std::string uuidList; // a copy, as the argument lives only until the return
    Parsed parsed;
    parsed.settings.destinationList = destinationList;
    parsed.settings.exclusionList = exclusionList;
    std::vector<char *> vector = Pointers(&words);
    const auto parse = [&](int) {
        parsed.outcome = ParseOptions(static_cast<int>(words.size()), vector.data(), &parsed.settings);
        return kStatusSuccess;
    };
    parsed.traces = Perform({}, parse);
    parsed.settings.uuidList = (uuidList = parsed.settings.uuidList).c_str();
    parsed.words.assign(vector.begin(), vector.end() - 1);
    parsed.commandIndex = static_cast<size_t>(optind);
    return parsed;
}

// Whether the command line is valid.
static bool IsPermitted(const Parsed &parsed)
{
    if (parsed.traces.aborted || parsed.outcome != ParseOutcome::Parsed || parsed.commandIndex >= parsed.words.size()) {
        return false;
    }
    std::vector<std::string> words = parsed.words;
    const std::vector<char *> vector = Pointers(&words);
    const CommandRow *row = FindCommand(words[parsed.commandIndex]);
    return row != nullptr &&
           (row->rule == nullptr ||
            row->rule({row->code, parsed.settings, static_cast<int>(words.size()), vector.data(), 0, -1}) == nullptr);
}

static std::string UuidText(const Uuid &uuid)
{
    std::string text;
    for (const uint8_t byte : uuid.bytes) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02hhx", byte);
        text += digits;
    }
    for (const size_t hyphen : {8U, 13U, 18U, 23U}) {
        text.insert(hyphen, 1, '-');
    }
    return text;
}

// The number of the last of these words, or 0.
static uint32_t LastOf(const std::map<std::string, uint32_t> &numbers, const std::vector<std::string> &words)
{
    const auto last =
        std::find_if(words.rbegin(), words.rend(), [&](const auto &word) { return numbers.contains(word); });
    return last == words.rend() ? 0 : numbers.at(*last);
}

// The number at the start of the word at this position, or `number`.
static uint64_t WholeOr(unsigned long number, const std::vector<std::string> &words, size_t place)
{
    if (place < words.size()) {
        sscanf(words[place].c_str(), "%lu", &number);
    }
    return number;
}

static double FractionOr(double number, const std::vector<std::string> &words, size_t place)
{
    if (place < words.size()) {
        sscanf(words[place].c_str(), "%lf", &number);
    }
    return number;
}

static Json ExpectedFields(const Parsed &parsed)
{
    const CommandSettings &settings = parsed.settings;
    const auto &words = parsed.words;
    const std::vector<std::string> after(words.begin() + static_cast<ptrdiff_t>(parsed.commandIndex) + 1, words.end());
    const auto count = [](const char *list) { return (strlen(list) + 1) / 37; };
    return {
        {"uuid", UuidText(settings.uuid)},
        {"decomMode", settings.decomMode},
        {"ensureDurability", settings.ensureDurability},
        {"reason", settings.reason},
        {"wipeDisk", settings.wipeDisk},
        {"recoveryMode", settings.recoveryMode},
        {"workItemType", settings.workItemType},
        {"all", settings.all},
        {"exclusionMode", settings.exclusionMode},
        {"json", settings.json == nullptr ? "" : settings.json},
        {"filePath", settings.filePath},
        {"uuidCount", count(settings.uuidList)},
        {"uuidList", settings.uuidList},
        {"destinationCount", count(settings.destinationList)},
        {"destinationList", settings.destinationList},
        {"exclusionCount", count(settings.exclusionList)},
        {"exclusionList", settings.exclusionList},
        {"level", after.empty() ? words[0] : after[0]},
        {"timeSpan", WholeOr(86400, after, 0)},
        {"varianceThreshold", FractionOr(0.3, after, 1)},
        {"timeThreshold", WholeOr(1800, after, 2)},
        {"rateThreshold", WholeOr(14913081, after, 3)},
        {"event", LastOf({{"update", 1}, {"add", 2}, {"delete", 3}}, after.empty() ? words : after)},
        {"entry", LastOf({{"object", 2}, {"disk", 3}, {"node", 4}}, after.empty() ? words : after)},
    };
}

// A field's value in the form used for comparison: a list as its text, and a number even where JSON has none.
static Json Plain(const Json &value, const Json &expected)
{
    if (expected.is_number_float() && value.is_string()) {
        return strtod(value.get<std::string>().c_str(), nullptr);
    }
    if (!value.is_array()) {
        return value;
    }
    std::string text;
    for (const Json &entry : value) {
        text += entry.get<std::string>() + ",";
    }
    return text.substr(0, text.size() - !text.empty());
}

static bool IsNan(const Json &value)
{
    return value.is_number_float() && std::isnan(value.get<double>());
}

static bool IsWellFormed(const std::string &list)
{
    static constexpr std::string_view kPattern = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx,";
    for (size_t i = 0; i < list.size(); ++i) {
        const char due = kPattern[i % kPattern.size()];
        if (due == 'x' ? strchr("0123456789abcdef", list[i]) == nullptr : list[i] != due) {
            return false;
        }
    }
    return list.empty() || (list.size() + 1) % kPattern.size() == 0;
}

// The tool checks only the length of a list, so the list can be a violation.
static bool IsExcused(const std::string &violation, const Json &expected)
{
    const std::string name = violation.substr(0, violation.find(' '));
    return name.ends_with("List") && !IsWellFormed(expected.at(name).get<std::string>());
}

static void CheckRequest(const Traces &traces, const Parsed &parsed)
{
    const auto *bytes = reinterpret_cast<const uint8_t *>(traces.request.data());
    const standin::DecodedRequest request = standin::DecodeRequest({bytes, traces.request.size()});
    const std::string_view word = request.command == nullptr ? "unknown" : request.command->word;
    ExpectEqual("the command", word, parsed.words.at(parsed.commandIndex));
    const Json expected = ExpectedFields(parsed);
    for (const std::string &violation : request.violations) {
        ExpectEqual("a violation", violation, IsExcused(violation, expected) ? violation : "none");
    }
    for (const standin::Field &field : request.fields) {
        const Json &due = expected.at(std::string(field.name));
        const Json value = Plain(field.value, due);
        if (!IsNan(value) || !IsNan(due)) {
            ExpectEqual(std::string(field.name), value, due);
        }
    }
}

// A run that ends before connecting: with the help text, unless it was aborted.
static void CheckEarlyEnd(const Traces &traces, const Parsed &parsed)
{
    const bool aborted = parsed.traces.aborted;
    const bool help = parsed.words.size() > 1 && parsed.outcome == ParseOutcome::HelpRequested;
    const std::string listing = "usage: " + parsed.words[0] + " <options> <cmd> <args>\n\ncommands:\n   stats\t";
    ExpectEqual("the number of connections", traces.connections, 0);
    ExpectEqual("whether the run was aborted", traces.aborted, aborted);
    ExpectEqual("the status", traces.status, aborted || help ? 0 : kStatusFailure);
    ExpectEqual("the help text", traces.standardOutput.substr(0, listing.size()), aborted ? "" : listing);
}

void CheckRun(const Surroundings &surroundings, const std::vector<std::string> &words)
{
    std::vector<std::string> own = words;
    std::vector<char *> vector = Pointers(&own);
    const Traces traces =
        Perform(surroundings, [&](int) { return RunTool(static_cast<int>(own.size()), vector.data()); });
    const Parsed parsed = Parse(words);
    if (!IsPermitted(parsed)) {
        CheckEarlyEnd(traces, parsed);
        return;
    }
    ExpectEqual("the number of connections", traces.connections, 1);
    if (surroundings.refusesConnection || surroundings.hangsUp) {
        ExpectEqual("the bytes sent", traces.request, "");
        ExpectEqual("whether the run failed", traces.status != 0, true);
    } else {
        CheckRequest(traces, parsed);
    }
}
