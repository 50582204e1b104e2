// The whole file is checked, so that a user who has made three mistakes hears of all three. Places in the file are JSON
// pointers, such as /answers/stats/0/status. standin-answers.schema.json states the same rules, except for those that
// depend on the command.

#include "answer_file.h"

#include "descriptor.h"
#include "field_kinds.h"
#include "status_names.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <filesystem>
#include <initializer_list>
#include <limits>
#include <optional>
#include <set>
#include <stdexcept>

namespace standin {

using Json = nlohmann::json;
using Place = Json::json_pointer;

namespace {

struct Reader {
    std::filesystem::path directory; // of the answers file; payload files are relative to it
    bool canPass;                    // there is a daemon to pass requests on to
    std::vector<std::string> errors;
};

} // namespace

static void Report(Reader *reader, const Place &place, const std::string &what)
{
    const std::string pointer = place.to_string();
    reader->errors.push_back((pointer.empty() ? "/" : pointer) + ": " + what);
}

// ---- Duplicate keys. A JSON object keeps only the last one, so they are detected during parsing. ----

namespace {

// An object or array that is being parsed.
struct Level {
    bool isArray;
    size_t count = 0; // elements of the array so far
    std::string key;  // the latest key of the object
    std::set<std::string> keys;
};

struct KeyWatch {
    Reader *reader;
    std::vector<Level> levels;
};

} // namespace

static Place PlaceOf(const std::vector<Level> &levels)
{
    Place place;
    for (const Level &level : levels) {
        if (level.isArray) {
            place /= level.count - 1;
        } else {
            place /= level.key;
        }
    }
    return place;
}

static void WatchKey(KeyWatch *watch, const std::string &key)
{
    Level &level = watch->levels.back();
    level.key = key;
    if (!level.keys.insert(key).second) {
        Report(watch->reader, PlaceOf(watch->levels), "is given twice");
    }
}

static void WatchEvent(KeyWatch *watch, Json::parse_event_t event, const Json &parsed)
{
    using Event = Json::parse_event_t;
    if (event == Event::key) {
        WatchKey(watch, parsed.get<std::string>());
        return;
    }
    if (event == Event::object_end || event == Event::array_end) {
        watch->levels.pop_back();
        return;
    }
    if (!watch->levels.empty()) {
        ++watch->levels.back().count;
    }
    if (event != Event::value) {
        watch->levels.push_back({event == Event::array_start, 0, {}, {}});
    }
}

static Json Parse(Reader *reader, const std::string &text)
{
    KeyWatch watch{reader, {}};
    try {
        return Json::parse(text, [&watch](int, Json::parse_event_t event, const Json &parsed) {
            WatchEvent(&watch, event, parsed);
            return true;
        });
    } catch (const Json::parse_error &error) {
        // The library's text begins with its name for the error in brackets. The rest contains line and column.
        const std::string_view what = error.what();
        reader->errors.emplace_back(what.substr(what.find("] ") + 2));
    } catch (const Json::out_of_range &) {
        WatchEvent(&watch, Json::parse_event_t::value, nullptr);
        Report(reader, PlaceOf(watch.levels), "is a number too large to be read");
    }
    return Json::value_t::discarded;
}

// ---- Values ----

static void RefuseOtherKeys(Reader *reader, const Place &place, const Json &object,
                            std::initializer_list<std::string_view> known)
{
    for (const auto &[key, value] : object.items()) {
        if (std::find(known.begin(), known.end(), key) == known.end()) {
            Report(reader, place / key, "is not known here");
        }
    }
}

struct Range {
    uint64_t min;
    uint64_t max;
};

static uint64_t ReadNumber(Reader *reader, const Place &place, const Json &object, const char *key, Range range)
{
    const auto found = object.find(key);
    if (found == object.end()) {
        return 0;
    }
    if (!found->is_number_unsigned() || *found < range.min || *found > range.max) {
        Report(reader, place / key,
               "must be a whole number from " + std::to_string(range.min) + " to " + std::to_string(range.max));
        return 0;
    }
    return found->get<uint64_t>();
}

static constexpr Range kStatusRange = {0, std::numeric_limits<uint32_t>::max()};
// A day, which is longer than any timeout of the tool.
static constexpr Range kPauseRange = {0, 86400000};

static std::chrono::milliseconds ReadPause(Reader *reader, const Place &place, const Json &object, const char *key)
{
    return std::chrono::milliseconds(ReadNumber(reader, place, object, key, kPauseRange));
}

// The number in a text such as "0x0bad0001".
static std::optional<uint32_t> HexNumber(std::string_view text)
{
    static constexpr size_t kTextLengthMax = 10;
    if (text.size() > kTextLengthMax) {
        return std::nullopt;
    }
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data() + 2, text.data() + text.size(), number, 16);
    return error == std::errc{} && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

// Statuses are usually written as names or in hexadecimal, which JSON numbers do not support.
static uint32_t ReadStatus(Reader *reader, const Place &place, const Json &answer)
{
    const auto found = answer.find("status");
    if (found == answer.end() || !found->is_string()) {
        return static_cast<uint32_t>(ReadNumber(reader, place, answer, "status", kStatusRange));
    }
    const auto &text = found->get_ref<const std::string &>();
    const std::optional<uint32_t> status =
        text.starts_with("0x") || text.starts_with("0X") ? HexNumber(text) : StatusNamed(text);
    if (!status) {
        Report(reader, place / "status", "must be a number, or a text such as \"EAGAIN\" or \"0x2bad000b\"");
    }
    return status.value_or(0);
}

static std::string ReadPayloadFile(Reader *reader, const Place &place, const std::string &name)
{
    std::string bytes;
    const std::string path = reader->directory / name;
    if (const int error = ReadFile(path, &bytes); error != 0) {
        Report(reader, place, SystemError(path, error));
    }
    return bytes;
}

// The bytes of an answer or a piece: those of "text", or the contents of "file".
static std::string ReadBytes(Reader *reader, const Place &place, const Json &object)
{
    std::string bytes;
    for (const char *key : {"text", "file"}) {
        const auto found = object.find(key);
        if (found == object.end()) {
            continue;
        }
        if (!found->is_string()) {
            Report(reader, place / key, "must be a text");
            continue;
        }
        const auto &text = found->get_ref<const std::string &>();
        bytes = std::string_view(key) == "file" ? ReadPayloadFile(reader, place / key, text) : text;
    }
    return bytes;
}

static bool IsObject(Reader *reader, const Place &place, const Json &value)
{
    if (!value.is_object()) {
        Report(reader, place, "must be an object");
    }
    return value.is_object();
}

// ---- Answers ----

static Piece ReadPiece(Reader *reader, const Place &place, const Json &piece)
{
    if (!IsObject(reader, place, piece)) {
        return {};
    }
    RefuseOtherKeys(reader, place, piece, {"text", "file", "pauseMs"});
    if (piece.contains("text") == piece.contains("file")) {
        Report(reader, place, "must have either \"text\" or \"file\"");
    }
    return {ReadPause(reader, place, piece, "pauseMs"), ReadBytes(reader, place, piece)};
}

static std::vector<Piece> ReadPieces(Reader *reader, const Place &place, const Json &answer)
{
    std::vector<Piece> pieces;
    if (answer.contains("text") + answer.contains("file") + answer.contains("pieces") > 1) {
        Report(reader, place, "must have only one of \"text\", \"file\" and \"pieces\"");
    }
    if (answer.contains("text") || answer.contains("file")) {
        pieces.push_back({{}, ReadBytes(reader, place, answer)});
    }
    const auto found = answer.find("pieces");
    if (found != answer.end() && (!found->is_array() || found->empty())) {
        Report(reader, place / "pieces", "must be a list that is not empty");
    } else if (found != answer.end()) {
        for (size_t i = 0; i < found->size(); ++i) {
            pieces.push_back(ReadPiece(reader, place / "pieces" / i, (*found)[i]));
        }
    }
    return pieces;
}

static Fault ReadFault(Reader *reader, const Place &place, const Json &answer)
{
    const auto found = answer.find("fault");
    if (found == answer.end()) {
        return Fault::None;
    }
    std::string names;
    for (const FaultName &row : kFaultNames) {
        if (*found == row.name) {
            return row.fault;
        }
        names.append(names.empty() ? "" : ", ").append(row.name);
    }
    Report(reader, place / "fault", "must be one of " + names);
    return Fault::None;
}

static uint32_t ReadFaultBytes(Reader *reader, const Place &place, const Json &json, const Answer &answer)
{
    if (!json.contains("faultBytes")) {
        Report(reader, place, "needs \"faultBytes\" for the fault " + std::string(NameOf(answer.fault)));
        return 0;
    }
    // A cut header is shorter than a whole one, and announce-more announces more than is sent.
    const Range range =
        answer.fault == Fault::CutHeader ? Range{0, kHeaderSize - 1} : Range{PayloadSize(answer) + 1, kStatusRange.max};
    return static_cast<uint32_t>(ReadNumber(reader, place, json, "faultBytes", range));
}

// A key without effect is refused: the command's reply has no place for it, or the answer's fault leaves it out.
static void RefuseUseless(Reader *reader, const Place &place, const Json &json, const char *key, const std::string &why)
{
    if (json.contains(key)) {
        Report(reader, place / key, why);
    }
}

static void RefusePayload(Reader *reader, const Place &place, const Json &json, const std::string &why)
{
    for (const char *key : {"text", "file", "pieces"}) {
        RefuseUseless(reader, place, json, key, why);
    }
}

static bool IsFrameFault(Fault fault)
{
    return fault == Fault::CutHeader || fault == Fault::AnnounceMore;
}

static bool SendsNothing(Fault fault)
{
    return fault == Fault::CloseWithoutReading || fault == Fault::CloseWithoutAnswering || fault == Fault::StaySilent;
}

static void CheckReplyClass(Reader *reader, const Place &place, const Json &json, Fault fault, ReplyClass replyClass)
{
    if (replyClass == ReplyClass::None) {
        RefusePayload(reader, place, json, "is never sent: this command gets no reply");
    }
    if (replyClass == ReplyClass::None || replyClass == ReplyClass::Streamed) {
        RefuseUseless(reader, place, json, "status", "is never sent: this command's reply has no status");
        if (IsFrameFault(fault) || (fault == Fault::Garbage && replyClass == ReplyClass::None)) {
            Report(reader, place / "fault", "breaks a reply that this command does not get");
        }
    }
}

static void CheckFault(Reader *reader, const Place &place, const Json &json, Fault fault)
{
    const std::string why = "is never sent: the fault is " + std::string(NameOf(fault));
    if (SendsNothing(fault)) {
        RefusePayload(reader, place, json, why);
    }
    if (SendsNothing(fault) || fault == Fault::Garbage) {
        RefuseUseless(reader, place, json, "status", why);
    }
    if (!IsFrameFault(fault)) {
        RefuseUseless(reader, place, json, "faultBytes", "belongs to the faults cut-header and announce-more");
    }
}

static uint32_t ReadTimes(Reader *reader, const Place &place, const Json &json)
{
    const uint64_t times = ReadNumber(reader, place, json, "times", {1, kStatusRange.max});
    return json.contains("times") ? static_cast<uint32_t>(times) : 1;
}

static bool ReadPass(Reader *reader, const Place &place, const Json &json)
{
    const auto found = json.find("pass");
    if (found == json.end()) {
        return false;
    }
    if (*found != true) {
        Report(reader, place / "pass", "must be true");
    }
    if (!reader->canPass) {
        Report(reader, place / "pass", "needs a daemon, which only a relay has");
    }
    for (const char *key : {"status", "text", "file", "pieces", "fault", "faultBytes"}) {
        RefuseUseless(reader, place, json, key, "is never used: the request is passed on");
    }
    return true;
}

static Answer ReadAnswer(Reader *reader, const Place &place, const Json &json, ReplyClass replyClass)
{
    Answer answer;
    if (!IsObject(reader, place, json)) {
        return answer;
    }
    RefuseOtherKeys(reader, place, json,
                    {"times", "pass", "status", "text", "file", "pieces", "delayMs", "fault", "faultBytes"});
    answer.pass = ReadPass(reader, place, json);
    answer.times = ReadTimes(reader, place, json);
    answer.status = ReadStatus(reader, place, json);
    answer.delay = ReadPause(reader, place, json, "delayMs");
    answer.pieces = ReadPieces(reader, place, json);
    answer.fault = ReadFault(reader, place, json);
    CheckReplyClass(reader, place, json, answer.fault, replyClass);
    CheckFault(reader, place, json, answer.fault);
    if (IsFrameFault(answer.fault)) {
        answer.faultBytes = ReadFaultBytes(reader, place, json, answer);
    }
    const std::string &lastStep = place.back(); // an index in a list; otherwise a key, which begins with a letter
    answer.listPlace = isdigit(static_cast<unsigned char>(lastStep.front())) != 0 ? place.to_string() : "";
    return answer;
}

// Reads a single value, or each value of a list.
template <typename ReadOne>
static void ReadOneOrMore(Reader *reader, const Place &place, const Json &json, const ReadOne &readOne)
{
    if (!json.is_array()) {
        readOne(place, json);
        return;
    }
    if (json.empty()) {
        Report(reader, place, "must not be empty");
    }
    for (size_t i = 0; i < json.size(); ++i) {
        readOne(place / i, json[i]);
    }
}

static bool HasField(const CommandRow &command, std::string_view name)
{
    const std::vector<Field> fields = FieldsOf(command.payload);
    return std::any_of(fields.begin(), fields.end(), [=](const Field &field) { return field.name == name; });
}

static std::vector<FieldCondition> ReadConditions(Reader *reader, const Place &place, const Json &json,
                                                  const CommandRow &command)
{
    std::vector<FieldCondition> conditions;
    if (!IsObject(reader, place, json)) {
        return conditions;
    }
    for (const auto &[key, value] : json.items()) {
        if (!HasField(command, key)) {
            Report(reader, place / key, "is no field of this command");
        } else if (const FieldKind &kind = KindOf(key); !kind.holds(value)) {
            Report(reader, place / key, std::string("must be ").append(kind.due));
        }
        conditions.push_back({key, key == "uuid" && value.is_string() ? Json(LowerCase(value)) : value});
    }
    return conditions;
}

// Whether the entry answers every request that has these fields.
static bool AnswersAll(const AnswerEntry &entry, const std::vector<FieldCondition> &conditions)
{
    return std::all_of(entry.conditions.begin(), entry.conditions.end(), [&](const FieldCondition &condition) {
        return std::find(conditions.begin(), conditions.end(), condition) != conditions.end();
    });
}

// Consecutive answers without conditions share one entry.
static void AddEntry(Reader *reader, const Place &place, AnswerEntry entry, std::vector<AnswerEntry> *entries)
{
    if (std::any_of(entries->begin(), entries->end(), [&](const AnswerEntry &earlier) {
            return (earlier.isConditional || entry.isConditional) && AnswersAll(earlier, entry.conditions);
        })) {
        Report(reader, place, "is never used: an entry before it answers all these requests");
    }
    if (entry.isConditional || entries->empty() || entries->back().isConditional) {
        entries->push_back(std::move(entry));
    } else {
        entries->back().answers.push_back(std::move(entry.answers.front()));
    }
}

static AnswerEntry ReadEntry(Reader *reader, const Place &place, Json json, const CommandAnswers &command)
{
    AnswerEntry entry;
    const auto readAnswer = [&](const Place &answerPlace, const Json &answer) {
        entry.answers.push_back(ReadAnswer(reader, answerPlace, answer, command.replyClass));
    };
    if (!json.is_object() || !json.contains("for")) {
        readAnswer(place, json);
        return entry;
    }
    entry.isConditional = true;
    entry.conditions = ReadConditions(reader, place / "for", json["for"], *command.command);
    json.erase("for");
    if (json.contains("answers")) {
        RefuseOtherKeys(reader, place, json, {"answers"});
        ReadOneOrMore(reader, place / "answers", json["answers"], readAnswer);
    } else {
        readAnswer(place, json);
    }
    return entry;
}

static void ReadCommands(Reader *reader, const Place &place, const Json &commands, AnswerBook *book)
{
    if (!IsObject(reader, place, commands)) {
        return;
    }
    for (const auto &[key, value] : commands.items()) {
        const auto command = book->find(key);
        if (command == book->end()) {
            Report(reader, place / key, "is no command");
            continue;
        }
        ReadOneOrMore(
            reader, place / key, value, [&, answers = &command->second](const Place &entryPlace, const Json &entry) {
                AddEntry(reader, entryPlace, ReadEntry(reader, entryPlace, entry, *answers), &answers->entries);
            });
    }
}

static void ReadTop(Reader *reader, const Json &top, AnswerBook *book)
{
    if (!IsObject(reader, Place(), top)) {
        return;
    }
    RefuseOtherKeys(reader, Place(), top, {"$schema", "answers"});
    if (!top.contains("answers")) {
        Report(reader, Place(), "needs \"answers\"");
        return;
    }
    ReadCommands(reader, Place("/answers"), top["answers"], book);
}

static std::string AllErrors(const std::string &path, const std::vector<std::string> &errors)
{
    std::string text;
    for (const std::string &error : errors) {
        text.append(text.empty() ? "" : "\n").append(path).append(": ").append(error);
    }
    return text;
}

AnswerBook ReadAnswerFile(const std::string &path, bool canPass)
{
    Reader reader{std::filesystem::path(path).parent_path(), canPass, {}};
    std::string text;
    if (const int error = ReadFile(path, &text); error != 0) {
        throw std::runtime_error(SystemError(path, error));
    }
    AnswerBook book = BuiltInAnswers();
    const Json top = Parse(&reader, text);
    if (!top.is_discarded()) {
        ReadTop(&reader, top, &book);
    }
    if (!reader.errors.empty()) {
        throw std::runtime_error(AllErrors(path, reader.errors));
    }
    return book;
}

} // namespace standin
