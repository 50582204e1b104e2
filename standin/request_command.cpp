// Each field of a request has a row that says how the field is written on the command line. Fields with their default
// value are left out unless the tool refuses the command without them.

#include "request_command.h"

#include "protocol_table.h"
#include "shell_words.h"

#include <algorithm>
#include <limits>
#include <map>

namespace standin {

using Json = nlohmann::ordered_json;

namespace {

struct CommandWords {
    std::vector<std::string> options;
    std::vector<std::string> operands; // after the command word
    std::vector<std::string> reasons;  // why the tool cannot send the request
};

struct FieldRow {
    std::string_view field;
    const char *option; // null: the value is an operand
    void (*add)(const FieldRow &row, const DecodedRequest &request, const Field &field, CommandWords *words);
    uint64_t max; // the length of the longest text that the tool accepts
};

} // namespace

static constexpr std::string_view kZeroUuid = "00000000-0000-0000-0000-000000000000";

static bool IsNeeded(const DecodedRequest &request, std::string_view field)
{
    return request.command->needed == field;
}

static void AddReason(const FieldRow &row, const std::string &what, CommandWords *words)
{
    words->reasons.push_back(std::string(row.field) + " " + what);
}

static void AddOption(const FieldRow &row, const std::string &value, CommandWords *words)
{
    words->options.insert(words->options.end(), {row.option, value});
}

// ---- How fields become words. ----

static void AddUuid(const FieldRow &row, const DecodedRequest &request, const Field &field, CommandWords *words)
{
    const auto &uuid = field.value.get_ref<const std::string &>();
    if (uuid == kZeroUuid && IsNeeded(request, kUuidOrAll)) {
        words->options.emplace_back("-a");
    } else if (uuid != kZeroUuid || (IsNeeded(request, row.field) && !request.allObjects)) {
        AddOption(row, uuid, words);
    }
}

static void AddFlag(const FieldRow &row, const DecodedRequest & /*request*/, const Field &field, CommandWords *words)
{
    if (field.value != 0) {
        words->options.emplace_back(row.option);
    }
}

static void AddNumber(const FieldRow &row, const DecodedRequest &request, const Field &field, CommandWords *words)
{
    if (field.value != 0 || IsNeeded(request, row.field)) {
        AddOption(row, field.value.dump(), words);
    }
}

static void AddWorkItem(const FieldRow &row, const DecodedRequest & /*request*/, const Field &field,
                        CommandWords *words)
{
    AddOption(row, std::string(field.meaning), words);
}

static void AddTextOption(const FieldRow &row, const DecodedRequest &request, const std::string &text,
                          CommandWords *words)
{
    if (text.size() > row.max) {
        AddReason(row, "is longer than " + std::to_string(row.max) + " bytes", words);
    }
    if (!text.empty() || IsNeeded(request, row.field)) {
        AddOption(row, text, words);
    }
}

static void AddText(const FieldRow &row, const DecodedRequest &request, const Field &field, CommandWords *words)
{
    AddTextOption(row, request, field.value.get<std::string>(), words);
}

static std::string Joined(const Json &list)
{
    std::string text;
    const char *separator = "";
    for (const Json &entry : list) {
        text.append(std::exchange(separator, ",")).append(entry.get_ref<const std::string &>());
    }
    return text;
}

static void AddList(const FieldRow &row, const DecodedRequest &request, const Field &field, CommandWords *words)
{
    AddTextOption(row, request, Joined(field.value), words);
}

static void AddUuidList(const FieldRow &row, const DecodedRequest &request, const Field &field, CommandWords *words)
{
    if (field.value.empty()) {
        AddReason(row, "is empty", words);
    }
    AddList(row, request, field, words);
}

static void AddLevel(const FieldRow &row, const DecodedRequest & /*request*/, const Field &field, CommandWords *words)
{
    words->operands.push_back(field.value.get<std::string>());
    if (words->operands.back().size() > row.max) {
        AddReason(row, "is longer than " + std::to_string(row.max) + " bytes", words);
    }
}

static void AddNumberOperand(const FieldRow &row, const DecodedRequest & /*request*/, const Field &field,
                             CommandWords *words)
{
    words->operands.push_back(field.value.is_string() ? field.value.get<std::string>() : field.value.dump());
    if (words->operands.back().find('(') != std::string::npos) {
        AddReason(row, "is a NaN that no operand gives", words);
    }
}

static void AddCallbackWord(const FieldRow & /*row*/, const DecodedRequest & /*request*/, const Field &field,
                            CommandWords *words)
{
    if (field.value != 0) {
        words->operands.emplace_back(field.meaning);
    }
}

// A count follows from its list.
static void AddNothing(const FieldRow &, const DecodedRequest &, const Field &, CommandWords *) {}

static constexpr uint64_t kNoLimit = std::numeric_limits<uint64_t>::max();
// Linux's limit for one argument, if a page of memory has 4096 bytes.
static constexpr uint64_t kArgumentLengthMax = 131071;
static constexpr uint64_t kListLengthMax = 94718;

static constexpr FieldRow kFieldRows[] = {
    {"uuid", "-u", AddUuid, kNoLimit},
    {"all", "-a", AddFlag, kNoLimit},
    {"decomMode", "-d", AddNumber, kNoLimit},
    {"ensureDurability", "-e", AddFlag, kNoLimit},
    {"reason", "-r", AddNumber, kNoLimit},
    {"wipeDisk", "-w", AddFlag, kNoLimit},
    {"recoveryMode", "-m", AddNumber, kNoLimit},
    {"exclusionMode", "-X", AddNumber, kNoLimit},
    {"workItemType", "-i", AddWorkItem, kNoLimit},
    {"json", "-j", AddText, kArgumentLengthMax},
    {"filePath", "-f", AddText, kNoLimit},
    {"uuidList", "-l", AddUuidList, kNoLimit},
    {"destinationList", "-n", AddList, kListLengthMax},
    {"exclusionList", "-x", AddList, kListLengthMax},
    {"uuidCount", nullptr, AddNothing, kNoLimit},
    {"destinationCount", nullptr, AddNothing, kNoLimit},
    {"exclusionCount", nullptr, AddNothing, kNoLimit},
    {"level", nullptr, AddLevel, kArgumentLengthMax},
    {"timeSpan", nullptr, AddNumberOperand, kNoLimit},
    {"varianceThreshold", nullptr, AddNumberOperand, kNoLimit},
    {"timeThreshold", nullptr, AddNumberOperand, kNoLimit},
    {"rateThreshold", nullptr, AddNumberOperand, kNoLimit},
    {"event", nullptr, AddCallbackWord, kNoLimit},
    {"entry", nullptr, AddCallbackWord, kNoLimit},
};

// ---- The line. ----

static void AddWord(std::string_view word, std::string *line)
{
    line->append(" ").append(ShellWord(word));
}

// An operand that looks like an option must follow "--".
static std::string Line(std::string_view commandWord, const CommandWords &words)
{
    std::string line = "plax-tool";
    for (const std::string &option : words.options) {
        AddWord(option, &line);
    }
    if (std::any_of(words.operands.begin(), words.operands.end(), [](const auto &word) { return word[0] == '-'; })) {
        AddWord("--", &line);
    }
    AddWord(commandWord, &line);
    for (const std::string &operand : words.operands) {
        AddWord(operand, &line);
    }
    return line;
}

static std::string Comment(const DecodedRequest &request, const std::vector<std::string> &reasons)
{
    std::string line = "# plax-tool cannot send this ";
    line.append(request.command != nullptr ? request.command->word : "request");
    const char *separator = ": ";
    for (const std::string &reason : reasons) {
        line.append(std::exchange(separator, "; ")).append(reason);
    }
    return line;
}

static CommandWords WordsOf(const DecodedRequest &request)
{
    CommandWords words;
    for (const Field &field : request.fields) {
        const auto *row = std::find_if(std::begin(kFieldRows), std::end(kFieldRows),
                                       [&](const FieldRow &candidate) { return candidate.field == field.name; });
        row->add(*row, request, field, &words);
    }
    return words;
}

static void CheckMoveTarget(const DecodedRequest &request, CommandWords *words)
{
    const auto isList = [](const std::string &option) { return option == "-n" || option == "-x"; };
    if (request.command->word == "component-manual-move" &&
        std::count_if(words->options.begin(), words->options.end(), isList) != 1) {
        words->reasons.emplace_back("it needs either a destination or an exclusion list");
    }
}

std::string RequestCommand(const DecodedRequest &request)
{
    if (request.violations.size() > request.typedViolations) {
        return Comment(request, request.violations);
    }
    CommandWords words = WordsOf(request);
    CheckMoveTarget(request, &words);
    return words.reasons.empty() ? Line(request.command->word, words) : Comment(request, words.reasons);
}

// ---- A line that was typed ----

namespace {

struct TypedCommand {
    std::map<const FieldRow *, std::string> options; // in the order of the rows, which is that of the fields
    std::vector<std::string> rest;                   // the command word and its operands
};

} // namespace

static const FieldRow *FindOption(std::string_view option)
{
    const auto *row = std::find_if(std::begin(kFieldRows), std::end(kFieldRows), [&](const FieldRow &candidate) {
        return candidate.option != nullptr && option == candidate.option;
    });
    return row == std::end(kFieldRows) ? nullptr : row;
}

// Returns the number of words that were taken.
static size_t TakeOption(std::span<const std::string> words, TypedCommand *typed, std::string *error)
{
    const FieldRow *row = FindOption(words.front());
    if (row == nullptr) {
        *error = "unknown option: " + words.front();
        return 1;
    }
    if (row->add == AddFlag) {
        typed->options[row] = "";
        return 1;
    }
    if (words.size() == 1) {
        *error = words.front() + " needs a value";
        return 1;
    }
    typed->options[row] = words[1]; // the last occurrence takes effect
    return 2;
}

static TypedCommand TakeTyped(std::span<const std::string> words, std::string *error)
{
    TypedCommand typed;
    bool optionsEnd = false;
    while (!words.empty()) {
        size_t count = 1;
        if (optionsEnd || words.front().size() < 2 || words.front()[0] != '-') {
            typed.rest.push_back(words.front());
        } else if (words.front() == "--") {
            optionsEnd = true;
        } else {
            count = TakeOption(words, &typed, error);
        }
        words = words.subspan(count);
    }
    return typed;
}

static bool IsCommand(const std::string &word)
{
    const auto commands = AllCommands();
    return std::any_of(commands.begin(), commands.end(), [&](const CommandRow &row) { return row.word == word; });
}

std::string TidyCommand(std::span<const std::string> words, std::string *error)
{
    if (words.front() != "plax-tool") {
        *error = "the command is not plax-tool: " + words.front();
        return {};
    }
    const TypedCommand typed = TakeTyped(words.subspan(1), error);
    if (!error->empty()) {
        return {};
    }
    if (typed.rest.empty() || !IsCommand(typed.rest.front())) {
        *error = typed.rest.empty() ? "no command word" : "unknown command word: " + typed.rest.front();
        return {};
    }
    CommandWords tidy;
    for (const auto &[row, value] : typed.options) {
        tidy.options.emplace_back(row->option);
        if (row->add != AddFlag) {
            tidy.options.push_back(value);
        }
    }
    tidy.operands.assign(typed.rest.begin() + 1, typed.rest.end());
    return Line(typed.rest.front(), tidy);
}

} // namespace standin
