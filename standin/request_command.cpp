// Each field of a request has a row that says how the field is written on the command line. Fields with their default
// value are left out unless the tool refuses the command without them.

#include "request_command.h"

#include "command_settings.h"
#include "field_kinds.h"
#include "protocol_table.h"
#include "shell_words.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <map>
#include <optional>

namespace standin {

using Json = nlohmann::ordered_json;

namespace {

struct CommandWords {
    std::vector<std::string> options;
    std::vector<std::string> operands; // after the command word
    std::vector<std::string> reasons;  // why the tool cannot send the request
};

struct FieldRow;

// A form of fields on the command line.
struct FieldForm {
    void (*add)(const FieldRow &row, const DecodedRequest &request, const Field &field, CommandWords *words);
    // The value that a word gives, if it gives any.
    std::optional<Json> (*read)(const FieldRow &row, const std::string &word);
    std::string_view due; // what a word must be
};

struct FieldRow {
    std::string_view field;
    const char *option; // null: the value is an operand
    const FieldForm &form;
    uint64_t max;          // the highest number, or the length of the longest text, that the tool accepts
    const char *byDefault; // the word that gives the value of a field that is not on the command line; null: none does
};

} // namespace

static constexpr const char *kZeroUuid = "00000000-0000-0000-0000-000000000000";

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

// ---- How words become fields. ----

static std::optional<Json> ReadNumber(const FieldRow &row, const std::string &word)
{
    const std::optional<uint64_t> number = WholeNumber(word);
    return number && *number <= row.max ? std::optional<Json>(*number) : std::nullopt;
}

static std::optional<Json> ReadReal(const FieldRow & /*row*/, const std::string &word)
{
    char *end = nullptr;
    const double number = strtod(word.c_str(), &end);
    return end != word.c_str() && *end == '\0' ? std::optional<Json>(Real(number)) : std::nullopt;
}

static std::optional<Json> ReadText(const FieldRow & /*row*/, const std::string &word)
{
    return word;
}

static std::optional<Json> ReadUuid(const FieldRow & /*row*/, const std::string &word)
{
    return IsUuidText(word, kEitherCaseDigits) ? std::optional<Json>(LowerCase(word)) : std::nullopt;
}

// Joined, the list is the word again.
static std::optional<Json> ReadList(const FieldRow & /*row*/, const std::string &word)
{
    if (word.empty()) {
        return std::optional<Json>(Json::array());
    }
    return (word.size() + 1) % kUuidListEntrySize == 0 ? std::optional<Json>(Json::array({word})) : std::nullopt;
}

static std::optional<Json> ReadName(const FieldRow &row, const std::string &word)
{
    const auto names = NamesOf(row.field);
    const auto found = std::find(names.begin(), names.end(), word);
    return found != names.end() && !word.empty() ? std::optional<Json>(found - names.begin()) : std::nullopt;
}

// ---- The fields ----

static constexpr FieldForm kUuid = {AddUuid, ReadUuid, "a UUID"};
static constexpr FieldForm kFlag = {AddFlag, ReadNumber, ""};
static constexpr FieldForm kNumber = {AddNumber, ReadNumber, "a whole number"};
static constexpr FieldForm kWorkItem = {AddWorkItem, ReadName, "the name of a work item"};
static constexpr FieldForm kText = {AddText, ReadText, ""};
static constexpr FieldForm kUuidList = {AddUuidList, ReadList, "a list of UUIDs"};
static constexpr FieldForm kList = {AddList, ReadList, "a list of UUIDs"};
static constexpr FieldForm kCount = {AddNothing, ReadText, ""};
static constexpr FieldForm kLevel = {AddLevel, ReadText, ""};
static constexpr FieldForm kNumberOperand = {AddNumberOperand, ReadNumber, "a whole number"};
static constexpr FieldForm kRealOperand = {AddNumberOperand, ReadReal, "a number"};
static constexpr FieldForm kCallbackWord = {AddCallbackWord, ReadName, ""};

static constexpr uint64_t kNoLimit = std::numeric_limits<uint64_t>::max();
static constexpr uint64_t kMax32 = std::numeric_limits<uint32_t>::max();
// Linux's limit for one argument, if a page of memory has 4096 bytes.
static constexpr uint64_t kArgumentLengthMax = 131071;
static constexpr uint64_t kListLengthMax = 94718;

static constexpr FieldRow kFieldRows[] = {
    {"uuid", "-u", kUuid, kNoLimit, kZeroUuid},
    {"all", "-a", kFlag, 1, "0"},
    {"decomMode", "-d", kNumber, kMax32, "0"},
    {"ensureDurability", "-e", kFlag, 1, "0"},
    {"reason", "-r", kNumber, kMax32, "0"},
    {"wipeDisk", "-w", kFlag, 1, "0"},
    {"recoveryMode", "-m", kNumber, 7, "0"},
    {"exclusionMode", "-X", kNumber, 3, "0"},
    {"workItemType", "-i", kWorkItem, kNoLimit, nullptr},
    {"json", "-j", kText, kArgumentLengthMax, ""},
    {"filePath", "-f", kText, kNoLimit, ""},
    {"uuidList", "-l", kUuidList, kNoLimit, ""},
    {"destinationList", "-n", kList, kListLengthMax, ""},
    {"exclusionList", "-x", kList, kListLengthMax, ""},
    {"uuidCount", nullptr, kCount, kNoLimit, ""},
    {"destinationCount", nullptr, kCount, kNoLimit, ""},
    {"exclusionCount", nullptr, kCount, kNoLimit, ""},
    {"level", nullptr, kLevel, kArgumentLengthMax, nullptr},
    {"timeSpan", nullptr, kNumberOperand, kNoLimit, "86400"},
    {"varianceThreshold", nullptr, kRealOperand, kNoLimit, "0.3"},
    {"timeThreshold", nullptr, kNumberOperand, kNoLimit, "1800"},
    {"rateThreshold", nullptr, kNumberOperand, kNoLimit, "14913081"},
    {"event", nullptr, kCallbackWord, kNoLimit, "none"},
    {"entry", nullptr, kCallbackWord, kNoLimit, "none"},
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

static std::string Listed(const std::vector<std::string> &reasons)
{
    std::string text;
    for (const std::string &reason : reasons) {
        text.append(text.empty() ? "" : "; ").append(reason);
    }
    return text;
}

static std::string Comment(const DecodedRequest &request, const std::vector<std::string> &reasons)
{
    const std::string_view what = request.command != nullptr ? request.command->word : "request";
    return std::string("# plax-tool cannot send this ").append(what).append(": ").append(Listed(reasons));
}

static const FieldRow &RowOf(std::string_view field)
{
    return *std::find_if(std::begin(kFieldRows), std::end(kFieldRows),
                         [=](const FieldRow &row) { return row.field == field; });
}

static void CheckMoveTarget(const DecodedRequest &request, CommandWords *words)
{
    const auto isList = [](const std::string &option) { return option == "-n" || option == "-x"; };
    if (request.command->word == "component-manual-move" &&
        std::count_if(words->options.begin(), words->options.end(), isList) != 1) {
        words->reasons.emplace_back("it needs either a destination or an exclusion list");
    }
}

static CommandWords WordsOf(const DecodedRequest &request)
{
    CommandWords words;
    for (const Field &field : request.fields) {
        const FieldRow &row = RowOf(field.name);
        row.form.add(row, request, field, &words);
    }
    CheckMoveTarget(request, &words);
    return words;
}

std::string RequestCommand(const DecodedRequest &request)
{
    if (request.violations.size() > request.typedViolations) {
        return Comment(request, request.violations);
    }
    const CommandWords words = WordsOf(request);
    return words.reasons.empty() ? Line(request.command->word, words) : Comment(request, words.reasons);
}

// ---- A line that was typed ----

namespace {

struct TypedCommand {
    std::map<const FieldRow *, std::string> words; // by which fields are given
    std::vector<std::string> rest;                 // the command word and its operands
};

} // namespace

static const FieldRow *FindOption(char letter)
{
    const auto *row = std::find_if(std::begin(kFieldRows), std::end(kFieldRows), [=](const FieldRow &candidate) {
        return candidate.option != nullptr && candidate.option[1] == letter;
    });
    return row == std::end(kFieldRows) ? nullptr : row;
}

// Takes the options of the first word, the last of which may have its value in the same word or the next one. Returns
// the number of words taken. The last value of an option counts.
static size_t TakeOptions(std::span<const std::string> words, TypedCommand *typed, std::string *error)
{
    const std::string &word = words.front();
    for (size_t i = 1; i < word.size(); ++i) {
        const FieldRow *row = FindOption(word[i]);
        if (row == nullptr) {
            *error = "unknown option: " + word;
            return 1;
        }
        if (&row->form == &kFlag) {
            typed->words[row] = "1";
        } else if (i + 1 < word.size()) {
            typed->words[row] = word.substr(i + 1);
            return 1;
        } else if (words.size() > 1) {
            typed->words[row] = words[1];
            return 2;
        } else {
            *error = std::string(row->option) + " needs a value";
        }
    }
    return 1;
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
            count = TakeOptions(words, &typed, error);
        }
        words = words.subspan(count);
    }
    return typed;
}

static const CommandRow *FindCommandWord(const std::string &word)
{
    const auto commands = AllCommands();
    const auto found =
        std::find_if(commands.begin(), commands.end(), [&](const CommandRow &row) { return row.word == word; });
    return found == commands.end() ? nullptr : &*found;
}

static void CheckNeeded(const CommandRow &command, const TypedCommand &typed, std::vector<std::string> *reasons)
{
    if (command.needed.empty()) {
        return;
    }
    std::string needed = command.needed == kUuidOrAll ? "-u" : RowOf(command.needed).option;
    const std::string other = command.needed == kUuidOrAll || command.streamsForAllObjects ? "-a"
                              : command.needed == "recoveryMode"                           ? "-u"
                                                                                           : needed;
    const bool isGiven = std::any_of(typed.words.begin(), typed.words.end(), [&](const auto &word) {
        return word.first->option == needed || word.first->option == other;
    });
    if (!isGiven) {
        reasons->push_back(needed.append(other == needed ? "" : " or " + other) + " is missing");
    }
}

// An operand gives the next field, except that callback words are told apart by what they name.
static void TakeOperands(const std::vector<Field> &fields, TypedCommand *typed)
{
    size_t next = 1;
    for (const Field &field : fields) {
        const FieldRow &row = RowOf(field.name);
        if (&row.form == &kCallbackWord) {
            const auto names = [&](const std::string &word) { return ReadName(row, word).value_or(0) != 0; };
            const auto last = std::find_if(typed->rest.rbegin(), typed->rest.rend(), names);
            typed->words[&row] = last == typed->rest.rend() ? row.byDefault : *last;
        } else if (row.option == nullptr && &row.form != &kCount && next < typed->rest.size()) {
            typed->words[&row] = typed->rest[next++];
        }
    }
}

static std::string WhatIsDue(const FieldRow &row)
{
    const bool isLimited = row.form.read == ReadNumber && row.max != kNoLimit;
    return std::string(row.form.due) + (isLimited ? " from 0 to " + std::to_string(row.max) : "");
}

static void ReadField(const FieldRow &row, TypedCommand *typed, DecodedRequest *request,
                      std::vector<std::string> *reasons)
{
    if (row.byDefault != nullptr) {
        typed->words.try_emplace(&row, row.byDefault);
    }
    const auto found = typed->words.find(&row);
    if (found == typed->words.end()) {
        reasons->push_back(std::string(row.option != nullptr ? row.option : row.field) + " is missing");
    } else if (const std::optional<Json> value = row.form.read(row, found->second)) {
        request->fields.push_back({row.field, *value, found->second});
    } else {
        reasons->push_back(std::string(row.field) + " must be " + WhatIsDue(row) + ", not " + ShellWord(found->second));
    }
}

static std::string TidyLine(const CommandRow &command, TypedCommand *typed, std::string *error)
{
    DecodedRequest request;
    request.command = &command;
    request.allObjects = command.streamsForAllObjects && typed->words.count(FindOption('a')) != 0;
    const std::vector<Field> fields = FieldsOf(command.payload);
    std::vector<std::string> reasons;
    CheckNeeded(command, *typed, &reasons);
    TakeOperands(fields, typed);
    for (const Field &field : fields) {
        ReadField(RowOf(field.name), typed, &request, &reasons);
    }
    CommandWords words;
    if (reasons.empty()) {
        words = WordsOf(request);
        reasons = words.reasons;
    }
    *error = Listed(reasons);
    return Line(command.word, words);
}

std::string TidyCommand(std::span<const std::string> words, std::string *error)
{
    if (words.front() != "plax-tool") {
        *error = "the command is not plax-tool: " + words.front();
        return {};
    }
    TypedCommand typed = TakeTyped(words.subspan(1), error);
    if (!error->empty()) {
        return {};
    }
    const CommandRow *command = typed.rest.empty() ? nullptr : FindCommandWord(typed.rest.front());
    if (command == nullptr) {
        *error = typed.rest.empty() ? "no command word" : "unknown command word: " + typed.rest.front();
        return {};
    }
    return TidyLine(*command, &typed, error);
}

} // namespace standin
