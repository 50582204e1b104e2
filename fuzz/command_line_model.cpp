// The model of the command line.

#include "command_line_model.h"

#include "input.h"

#include <getopt.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <map>

// Rules: u uuid or all, j json, w word test for log-level, b word test for block-cdb-cb, l list, m mode or uuid,
// i work item, t move target, x exclusion list, - none.
// Payloads: U uuid text, J json, L level, R rebalance, D entity decom, W upgrade, F reconfigure, T file path,
// M recovery mode, I work item, A crawler state, B callback, V manual move, G global exclusion, - none.
static constexpr ModelCommand kModelCommands[] = {
    {"stats", 'S', '-', '-'},
    {"crawler", 'C', 'u', 'U'},
    {"fitness-config-get", 'P', '-', '-'},
    {"fitness-config-set", 'C', 'j', 'J'},
    {"fitness-config-reset", 'C', '-', '-'},
    {"fitness-stats-get", 'P', '-', '-'},
    {"log-level", 'C', 'w', 'L'},
    {"fix-object-immediate", 'C', '-', 'U'},
    {"get-object-last-operation", 'P', '-', 'U'},
    {"start-proactive-rebalance", 'C', '-', 'R'},
    {"stop-proactive-rebalance", 'C', '-', '-'},
    {"info-proactive-rebalance", 'P', '-', '-'},
    {"fix-concats", 'C', '-', '-'},
    {"info-rebalance", 'P', 'u', 'U'},
    {"resources-to-fix-unhealthy-objects", 'P', '-', 'U', 1800},
    {"what-if-entity-decom", 'P', 'u', 'D', 1800},
    {"what-if-upgrade", 'P', 'l', 'W', 7200},
    {"what-if-cancel", 'C', '-', '-'},
    {"force-reconfigure-the-object", 'C', '-', 'F'},
    {"update-plaxdb", 'C', '-', 'T'},
    {"replace-plaxdb", 'C', '-', 'T'},
    {"enable-plax-recovery-mode", 'C', 'm', 'M'},
    {"get-obj-decom-state", 'P', 'u', 'U'},
    {"enable-workitem", 'C', 'i', 'I'},
    {"disable-workitem", 'C', 'i', 'I'},
    {"get-obj-crawler-state", 'A', 'u', 'A'},
    {"pause-decom-state-progress", 'C', '-', '-'},
    {"resume-decom-state-progress", 'C', '-', '-'},
    {"start-decom-state-heartbeat", 'C', '-', '-'},
    {"pause-failed-delta-entry-processing", 'N', '-', '-'},
    {"block-cdb-cb", 'N', 'b', 'B'},
    {"refresh-config-opts", 'N', '-', '-'},
    {"component-manual-move", 'C', 't', 'V'},
    {"set-global-exclusion-list", 'C', 'x', 'G'},
};

static const std::map<char, std::string_view> kRuleMessages = {
    {'u', "UUID must be provided (specify with --uuid)\n"},
    {'j', "Fitness config must be provided (specify with --json <json object>)\n"},
    {'w', "Log level must be specified. E.g.: plax-tool log-level 2\n"},
    {'b', "Callback entry and event type must be provided.\n"},
    {'l', "UUID's must be provided, separated by comma (specify with --uuid-list)\n"},
    {'m', "Either recovery mode(specify with -m/--recovery-Mode) or uuid(specify with -u/--uuid) must be provided\n"},
    {'i', "work-item type must be provided (specify with -i/--work-item)\n"},
    {'x', "Exclusion list must be provided (specify with -x/--exclusion-list)"},
};

static const std::map<std::string_view, uint32_t> kModelWorkItems = {
    {"PLACEMENT", 1},
    {"DECOM_CLEANUP", 2},
    {"CLEANUP", 3},
    {"VOTES_REBALANCE", 5},
    {"FIX_FD_IDS", 6},
    {"MOVE", 7},
    {"REACTIVE_REBALANCE", 8},
    {"DECOM", 9},
    {"FORCE_REPAIR", 10},
    {"FORCE_RECONFIGURE", 11},
    {"RECOVERY", 12},
    {"REPAIR", 13},
    {"CHANGE", 14},
    {"CHANGE_PENDING", 15},
    {"COMPLIANCE", 16},
    {"CONCAT", 17},
    {"PROACTIVE_REBALANCE", 18},
    {"DELTA_DECOM", 19},
    {"FORMAT_CHANGE", 20},
    {"UNPLANNED_DELTA", 21},
    {"MANUAL_MOVE", 22},
};

static constexpr option kModelOptions[] = {
    {"help", 0, nullptr, 'h'},
    {"output-path", 1, nullptr, 'o'},
    {"socket-path", 1, nullptr, 's'},
    {"timeout", 1, nullptr, 't'},
    {"uuid", 1, nullptr, 'u'},
    {"uuid-list", 1, nullptr, 'l'},
    {"json", 1, nullptr, 'j'},
    {"file-path", 1, nullptr, 'f'},
    {"decom-mode", 1, nullptr, 'd'},
    {"ensure-durability", 0, nullptr, 'e'},
    {"reason", 1, nullptr, 'r'},
    {"work-item", 1, nullptr, 'i'},
    {"recovery-mode", 1, nullptr, 'm'},
    {"wipe-disk", 0, nullptr, 'w'},
    {"all", 0, nullptr, 'a'},
    {"destination-list", 1, nullptr, 'n'},
    {"exclusion-list", 1, nullptr, 'x'},
    {"exclusion-mode", 1, nullptr, 'X'},
    {nullptr, 0, nullptr, 0},
};

// What an option's failure looks like. Nothing: the option is accepted.
using Failure = std::optional<std::string>;

static bool IsSpace(char character)
{
    return character == ' ' || (character >= '\t' && character <= '\r');
}

static void DropSpace(std::string_view *text)
{
    while (!text->empty() && IsSpace(text->front())) {
        text->remove_prefix(1);
    }
}

static void AddDigit(char character, ModelNumber *number)
{
    const auto digit = static_cast<unsigned long>(character - '0');
    number->found = true;
    if (number->value > (ULONG_MAX - digit) / 10) {
        number->outOfRange = true;
    }
    number->value = number->value * 10 + digit;
}

ModelNumber ReadModelNumber(std::string_view text)
{
    DropSpace(&text);
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    ModelNumber number;
    for (; !text.empty() && text.front() >= '0' && text.front() <= '9'; text.remove_prefix(1)) {
        AddDigit(text.front(), &number);
    }
    if (number.outOfRange) {
        number.value = ULONG_MAX;
    } else if (negative) {
        number.value = 0 - number.value;
    }
    return number;
}

static Failure ReadNumberOption(const char *what, const std::string &argument, uint32_t *kept)
{
    const ModelNumber number = ReadModelNumber(argument);
    if (number.outOfRange) {
        return std::string("Failed to parse ") + what + ": " + argument + "\n";
    }
    *kept = static_cast<uint32_t>(number.value);
    return std::nullopt;
}

static Failure ReadUuidOption(const std::string &argument, ModelSettings *settings)
{
    const char *rest = argument.c_str();
    int conversions = 0;
    for (const bool hyphen :
         {false, false, false, false, true, false, true, false, true, false, true, false, false, false, false, false}) {
        if (hyphen && *rest++ != '-') {
            break;
        }
        unsigned byte = 0;
        int length = 0;
        const int found = sscanf(rest, "%2x%n", &byte, &length);
        if (found != 1) {
            conversions = conversions == 0 ? found : conversions;
            break;
        }
        settings->uuid[static_cast<size_t>(conversions++)] = static_cast<uint8_t>(byte);
        rest += length;
    }
    if (conversions < 8) {
        return "Failed to parse UUID: " + argument + ", length=" + std::to_string(conversions) + "\n";
    }
    settings->uuidGiven = true;
    ++settings->uuidOrModeCount;
    return std::nullopt;
}

static bool IsListLength(size_t length)
{
    return (length + 1) % 37 == 0;
}

static Failure ReadEntityList(const char *name, const std::string &argument, std::optional<std::string> *list)
{
    if (!argument.empty() && !IsListLength(argument.size())) {
        return "Invalid UUID: " + argument + "\n";
    }
    if (argument.size() > 94718) {
        return std::string(name) + " list is longer than max limit\n";
    }
    *list = argument;
    return std::nullopt;
}

static Failure ReadFilePath(const std::string &argument, std::string *path)
{
    if (argument.size() > 4096) {
        return "File path is longer than the max path length";
    }
    // A shorter path leaves the tail of an earlier one behind it.
    path->replace(0, argument.size(), argument);
    return std::nullopt;
}

static Failure ReadWorkItem(const std::string &argument, uint32_t *code)
{
    const auto item = kModelWorkItems.find(argument);
    if (item == kModelWorkItems.end()) {
        return "Invalid work-item type name: " + argument + "\n";
    }
    *code = item->second;
    return std::nullopt;
}

static Failure ReadRecoveryMode(const std::string &argument, ModelSettings *settings)
{
    const Failure failure = ReadNumberOption("recoveryMode", argument, &settings->recoveryMode);
    if (failure.has_value() || settings->recoveryMode > 7) {
        return "Failed to parse recoveryMode: " + argument + "\n";
    }
    ++settings->uuidOrModeCount;
    return std::nullopt;
}

static Failure ReadExclusionMode(const std::string &argument, uint32_t *mode)
{
    Failure failure = ReadNumberOption("exclusion mode", argument, mode);
    if (!failure.has_value() && *mode > 3) {
        return "Invalid exclusion mode: " + std::to_string(static_cast<int32_t>(*mode)) + "\n";
    }
    return failure;
}

static Failure ReadJson(const std::string &argument, ModelSettings *settings)
{
    settings->json = argument;
    ++settings->jsonCount;
    return std::nullopt;
}

static Failure ReadUuidList(const std::string &argument, ModelSettings *settings)
{
    if (!IsListLength(argument.size())) {
        return "Invalid UUID: " + argument + "\n";
    }
    settings->uuidList = argument;
    return std::nullopt;
}

template <typename Field, typename Value>
static Failure Set(Field *field, const Value &value)
{
    *field = value;
    return std::nullopt;
}

static Failure ReadOption(int letter, const std::string &argument, ModelSettings *settings)
{
    uint32_t dropped = 0;
    switch (letter) {
    case 'o':
        return Set(&settings->outputPath, argument);
    case 's':
        return Set(&settings->socketPath, argument);
    case 't':
        return ReadNumberOption("wait timeout", argument, &dropped);
    case 'u':
        return ReadUuidOption(argument, settings);
    case 'l':
        return ReadUuidList(argument, settings);
    case 'j':
        return ReadJson(argument, settings);
    case 'f':
        return ReadFilePath(argument, &settings->filePath);
    case 'd':
        return ReadNumberOption("decomMode", argument, &settings->decomMode);
    case 'e':
        return Set(&settings->ensureDurability, true);
    case 'r':
        return ReadNumberOption("reason", argument, &settings->reason);
    case 'i':
        return ReadWorkItem(argument, &settings->workItemType);
    case 'm':
        return ReadRecoveryMode(argument, settings);
    case 'w':
        return Set(&settings->wipeDisk, true);
    case 'a':
        return Set(&settings->all, true);
    case 'n':
        return ReadEntityList("Destination", argument, &settings->destinationList);
    case 'x':
        return ReadEntityList("Exclusion", argument, &settings->exclusionList);
    case 'X':
        return ReadExclusionMode(argument, &settings->exclusionMode);
    default:
        return ""; // an unknown option or a missing argument, which is reported in other words
    }
}

// Returns false when the run ends here.
static bool ReadOptions(ArgumentVector *vector, ModelRun *run)
{
    int letter = 0;
    while ((letter = getopt_long(vector->Count(), vector->pointers.data(), "ho:s:t:u:l:j:f:d:r:n:x:X:i:m:wae",
                                 kModelOptions, &run->settings.longOptionIndex)) != -1) {
        if (letter == 'h') {
            run->end = ModelEnd::Help;
            return false;
        }
        const std::string argument = optarg == nullptr ? "" : optarg;
        const Failure failure = ReadOption(letter, argument, &run->settings);
        if (failure.has_value()) {
            run->warnings = *failure;
            return false;
        }
        if (letter == 'l' && argument.size() >= 94720) {
            run->warnings = "UUID list is longer than max limit\n";
            run->end = ModelEnd::Abort;
            return false;
        }
    }
    return true;
}

static bool PassesModelWordTest(const ModelRun &run)
{
    const auto index = static_cast<size_t>(run.settings.longOptionIndex);
    if (index >= run.words.size()) {
        return index > run.words.size();
    }
    return ReadModelNumber(run.words[index]).value != ULONG_MAX;
}

// Returns the message of the manual move's first check that fails, or nothing.
static std::string_view CheckMoveTarget(const ModelSettings &settings)
{
    if (!settings.uuidGiven) {
        return kRuleMessages.at('u');
    }
    if (settings.destinationList.has_value() == settings.exclusionList.has_value()) {
        return "Either destination list(specify with -n/--destination-list) or exclusion list (specify with "
               "-x/--exclusion-list) should be provided \n";
    }
    const bool empty = settings.destinationList.value_or("").empty() && settings.exclusionList.value_or("").empty();
    return empty ? "Empty destination or exclusion list not allowed." : "";
}

static bool PassesModelRule(const ModelRun &run)
{
    const ModelSettings &settings = run.settings;
    switch (run.command.rule) {
    case 'u':
        return settings.uuidGiven || settings.all;
    case 'j':
        return settings.json.has_value();
    case 'w':
    case 'b':
        return PassesModelWordTest(run);
    case 'l':
        return settings.uuidList.has_value();
    case 'm':
        return settings.uuidOrModeCount != 0;
    case 'i':
        return settings.workItemType != 0;
    case 'x':
        return settings.exclusionList.has_value();
    default:
        return true;
    }
}

static std::string_view RuleMessage(const ModelRun &run)
{
    if (run.command.rule == 't') {
        return CheckMoveTarget(run.settings);
    }
    return PassesModelRule(run) ? "" : kRuleMessages.at(run.command.rule);
}

// Finds the command and applies its rule. Returns false when the run ends here.
static bool SelectModelCommand(size_t position, ModelRun *run)
{
    if (position >= run->words.size()) {
        run->warnings = "Command string missing\n";
        return false;
    }
    for (const ModelCommand &command : kModelCommands) {
        ++run->code;
        if (command.word == run->words[position]) {
            run->command = command;
            run->argumentIndex = position + 1 < run->words.size() ? position + 1 : 0;
            run->warnings = RuleMessage(*run);
            return run->warnings.empty();
        }
    }
    run->warnings = "Unrecognized command: " + run->words[position] + "\n";
    return false;
}

ModelRun PredictCommandLine(const std::vector<std::string> &words)
{
    ModelRun run;
    if (words.size() < 2) {
        return run;
    }
    ArgumentVector vector(words);
    optind = 0; // begins a new command line
    if (!ReadOptions(&vector, &run)) {
        return run;
    }
    const auto position = static_cast<size_t>(optind);
    run.words.assign(vector.pointers.begin(), vector.pointers.end() - 1);
    if (SelectModelCommand(position, &run)) {
        run.end = ModelEnd::Connection;
    }
    return run;
}

ModelCallback FindModelCallback(const std::vector<std::string> &words, size_t first)
{
    static const std::map<std::string_view, uint32_t> events = {{"update", 1}, {"add", 2}, {"delete", 3}};
    static const std::map<std::string_view, uint32_t> entries = {{"object", 2}, {"disk", 3}, {"node", 4}};
    ModelCallback callback;
    for (size_t i = words.size(); i-- > first;) {
        if (callback.event == 0 && events.contains(words[i])) {
            callback.event = events.at(words[i]);
        }
        if (callback.entry == 0 && entries.contains(words[i])) {
            callback.entry = entries.at(words[i]);
        }
    }
    return callback;
}

static void ReadWhole(const std::string &word, uint64_t *field)
{
    const ModelNumber number = ReadModelNumber(word);
    if (number.found) {
        *field = number.value;
    }
}

// Formatted input knows the same fractions as strtod, but takes a word that breaks off within a longer form ("infin",
// "0x") for no number where strtod is content with the shorter one.
static bool BreaksOff(std::string_view word)
{
    std::string lower;
    for (const char character : word) {
        lower += static_cast<char>(character >= 'A' && character <= 'Z' ? character - 'A' + 'a' : character);
    }
    std::string_view rest = lower;
    DropSpace(&rest);
    if (rest.starts_with('-') || rest.starts_with('+')) {
        rest.remove_prefix(1);
    }
    if (rest.starts_with("infi")) {
        return !rest.starts_with("infinity");
    }
    const bool hexadecimal = rest.starts_with("0x");
    return hexadecimal && (rest.size() == 2 || !Has("0123456789abcdef.", rest[2]));
}

static void ReadFraction(const std::string &word, double *field)
{
    char *end = nullptr;
    const double value = strtod(word.c_str(), &end);
    if (end != word.c_str() && !BreaksOff(word)) {
        *field = value;
    }
}

ModelRebalance ReadModelRebalance(const std::vector<std::string> &words, size_t first)
{
    ModelRebalance rebalance;
    const size_t count = first == 0 || first > words.size() ? 0 : words.size() - first;
    if (count > 0) {
        ReadWhole(words[first], &rebalance.timeSpan);
    }
    if (count > 1) {
        ReadFraction(words[first + 1], &rebalance.varianceThreshold);
    }
    if (count > 2) {
        ReadWhole(words[first + 2], &rebalance.timeThreshold);
    }
    if (count > 3) {
        ReadWhole(words[first + 3], &rebalance.rateThreshold);
    }
    return rebalance;
}
