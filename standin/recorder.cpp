// Requests whose fields are all equal share a list of answers, in the order in which the requests came.

#include "recorder.h"

#include "status_names.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <stdexcept>

namespace standin {

using Json = nlohmann::ordered_json;

// ---- Files that are written whole or not at all ----

static std::string TemporaryPath(const std::string &path)
{
    return path + ".tmp";
}

[[noreturn]] static void Fail(const std::string &path)
{
    throw std::runtime_error(SystemError(path, errno));
}

static Descriptor OpenTemporary(const std::string &path)
{
    Descriptor file(open(TemporaryPath(path).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (file.Get() < 0) {
        Fail(path);
    }
    return file;
}

static void WriteBytes(const Descriptor &file, const std::string &path, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = write(file.Get(), bytes.data(), bytes.size());
        if (count <= 0) {
            Fail(path);
        }
        bytes.remove_prefix(static_cast<size_t>(count));
    }
    if (fsync(file.Get()) < 0) {
        Fail(path);
    }
}

static void ReplaceFile(const std::string &path, std::string_view bytes)
{
    WriteBytes(OpenTemporary(path), path, bytes);
    if (rename(TemporaryPath(path).c_str(), path.c_str()) < 0) {
        Fail(path);
    }
}

Recorder::Recorder(std::string path) : path_(std::move(path))
{
    if (struct stat status{}; stat(path_.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        throw std::runtime_error(path_ + ": is not a regular file");
    }
    OpenTemporary(path_);
    unlink(TemporaryPath(path_).c_str());
}

// ---- What passes ----

static Json FieldsOf(const DecodedRequest &request)
{
    Json fields = Json::object();
    for (const Field &field : request.fields) {
        fields[std::string(field.name)] = field.value;
    }
    return fields;
}

// The fields of a malformed payload may be missing or have values that no answers file can name.
static bool CanBeRecorded(const DecodedRequest &request)
{
    return request.command != nullptr && request.violations.size() == request.typedViolations;
}

void Recorder::RequestCame(const LogEntry &entry, std::string_view bytes)
{
    static_cast<void>(bytes);
    const DecodedRequest &request = entry.request;
    if (!CanBeRecorded(request)) {
        return;
    }
    const std::string key = AnswerKey(*request.command, request.allObjects);
    const std::string fields = DumpJson(FieldsOf(request));
    Json &answers = commands_[key][fields];
    exchanges_[entry.connection] = {key, fields, answers.size(), std::chrono::steady_clock::now(), {}};
    answers.push_back(nullptr); // a placeholder until the exchange ends
}

void Recorder::ReplySent(const LogEntry &entry, std::string_view bytes)
{
    if (const auto place = exchanges_.find(entry.connection); place != exchanges_.end()) {
        place->second.reply.push_back({std::chrono::steady_clock::now(), std::string(bytes)});
    }
}

void Recorder::Ended(const LogEntry &entry)
{
    if (const auto place = exchanges_.find(entry.connection); place != exchanges_.end()) {
        Exchange &exchange = place->second;
        commands_[exchange.key][exchange.fields][exchange.index] = AnswerOf(entry, &exchange);
        exchanges_.erase(place);
    }
}

// ---- What the daemon did ----

// A cut header is recorded without a payload, so it announces the length 0. Other length bytes, which a client may
// read, are recorded as garbage.
static Fault FrameFault(const SentBytes &sent)
{
    if (sent.count < kHeaderSize) {
        return ReadHeader(sent.head).length == 0 ? Fault::CutHeader : Fault::Garbage;
    }
    const uint64_t announced = ReadHeader(sent.head).length;
    const uint64_t came = sent.count - kHeaderSize;
    return came == announced ? Fault::None : came < announced ? Fault::AnnounceMore : Fault::Garbage;
}

// The fault of an answer that the relay itself gave.
static Fault PlayedFault(std::string_view name)
{
    const auto *const row = std::find_if(std::begin(kFaultNames), std::end(kFaultNames),
                                         [=](const FaultName &fault) { return fault.name == name; });
    return row == std::end(kFaultNames) ? Fault::None : row->fault;
}

static Fault FaultOf(const LogEntry &entry)
{
    const bool nothing = entry.sent.count == 0;
    if (nothing && (entry.outcome == "answered" || entry.outcome == "fault")) {
        return PlayedFault(entry.fault);
    }
    if (entry.outcome == "unreachable" || (nothing && entry.daemonEnd == DaemonEnd::Reset)) {
        return Fault::CloseWithoutReading;
    }
    if (entry.replyClass == ReplyClass::None) {
        return Fault::None;
    }
    if (nothing && entry.daemonEnd == DaemonEnd::AfterClient) {
        return Fault::StaySilent;
    }
    if (!IsFramed(entry.replyClass)) {
        return Fault::None;
    }
    return nothing ? Fault::CloseWithoutAnswering : FrameFault(entry.sent);
}

// Milliseconds within the limits of an answers file.
static int64_t Milliseconds(SteadyTime from, SteadyTime to)
{
    const auto time = std::chrono::floor<std::chrono::milliseconds>(to - from).count();
    return std::clamp<int64_t>(time, 0, 86400000);
}

// Removes the header and returns the time at which its last byte came.
static SteadyTime TakeHeader(std::vector<TimedBytes> *reply)
{
    size_t left = kHeaderSize;
    for (TimedBytes &part : *reply) {
        const size_t count = std::min(left, part.bytes.size());
        part.bytes.erase(0, count);
        left -= count;
        if (left == 0) {
            return part.time;
        }
    }
    return reply->back().time;
}

static void AddFault(const LogEntry &entry, Fault fault, Json *answer)
{
    if (fault == Fault::None) {
        return;
    }
    (*answer)["fault"] = NameOf(fault);
    if (fault == Fault::CutHeader) {
        (*answer)["faultBytes"] = entry.sent.count;
    } else if (fault == Fault::AnnounceMore) {
        (*answer)["faultBytes"] = ReadHeader(entry.sent.head).length;
    }
}

// Bytes of the status that a cut header lacks are zero.
static void AddStatus(uint32_t status, Json *answer)
{
    if (status == 0) {
        return;
    }
    if (const std::string_view name = StatusName(status); !name.empty()) {
        (*answer)["status"] = name;
    } else {
        (*answer)["status"] = status;
    }
}

// Null for an exchange that was cut short by the relay's end.
Json Recorder::AnswerOf(const LogEntry &entry, Exchange *exchange)
{
    if (entry.outcome == "unfinished") {
        return nullptr;
    }
    const Fault fault = FaultOf(entry);
    const bool hasHeader = IsFramed(entry.replyClass) && (fault == Fault::None || fault == Fault::AnnounceMore);
    std::vector<TimedBytes> reply = std::move(exchange->reply);
    SteadyTime start = reply.empty() ? std::chrono::steady_clock::now() : reply.front().time;
    Json answer = Json::object();
    if (IsFramed(entry.replyClass) && fault != Fault::Garbage) {
        AddStatus(ReadHeader(entry.sent.head).codeOrStatus, &answer);
    }
    if (hasHeader) {
        start = TakeHeader(&reply);
    }
    const bool waits = entry.replyClass == ReplyClass::None || fault == Fault::StaySilent;
    if (const int64_t delay = waits ? 0 : Milliseconds(exchange->came, start); delay > 0) {
        answer["delayMs"] = delay;
    }
    if (fault != Fault::CutHeader && entry.replyClass != ReplyClass::None) {
        answer.update(PiecesOf(reply, start));
    }
    AddFault(entry, fault, &answer);
    return answer;
}

// Parts that come less than a millisecond apart make one piece.
Json Recorder::PiecesOf(const std::vector<TimedBytes> &reply, SteadyTime start)
{
    std::vector<Piece> pieces;
    for (const TimedBytes &part : reply) {
        const std::chrono::milliseconds pause(Milliseconds(start, part.time));
        if (pieces.empty() || pause.count() > 0) {
            pieces.push_back({pause, {}});
        }
        pieces.back().bytes += part.bytes;
        start += pause;
    }
    std::erase_if(pieces, [](const Piece &piece) { return piece.bytes.empty(); });
    if (pieces.empty()) {
        return Json::object();
    }
    if (pieces.size() == 1 && pieces.front().pause.count() == 0) {
        return PayloadOf(pieces.front().bytes);
    }
    Json list = Json::array();
    for (const Piece &piece : pieces) {
        list.push_back(PayloadOf(piece.bytes));
        if (piece.pause.count() > 0) {
            list.back()["pauseMs"] = piece.pause.count();
        }
    }
    return {{"pieces", list}};
}

// A file's name is made from its bytes, so the files of an earlier recording keep their contents.
Json Recorder::PayloadOf(const std::string &bytes)
{
    if (Json::parse(DumpJson(bytes)) == bytes) {
        return {{"text", bytes}};
    }
    char hash[24];
    snprintf(hash, sizeof hash, ".%016zx", std::hash<std::string>{}(bytes));
    const std::string name = std::filesystem::path(path_).filename().string() + hash;
    payloads_[name] = bytes;
    return {{"file", name}};
}

// ---- The file ----

static Json EntryOf(const std::string &fields, Json answers)
{
    Json entry = {{"for", Json::parse(fields)}};
    if (answers.size() == 1) {
        entry.update(answers.front());
    } else {
        entry["answers"] = std::move(answers);
    }
    return entry;
}

// Leaves out exchanges that have not ended or were cut short, and folds equal answers.
static Json Complete(const Json &answers)
{
    Json complete = Json::array();
    Json last;
    for (const Json &answer : answers) {
        if (answer.is_null()) {
            continue;
        }
        if (answer == last) {
            complete.back()["times"] = complete.back().value("times", 1) + 1;
        } else {
            complete.push_back(last = answer);
        }
    }
    return complete;
}

static Json ListOf(const Json &command)
{
    Json list = Json::array();
    for (const auto &[fields, answers] : command.items()) {
        Json complete = Complete(answers);
        if (fields == "{}") {
            list.insert(list.end(), complete.begin(), complete.end());
        } else if (!complete.empty()) {
            list.push_back(EntryOf(fields, std::move(complete)));
        }
    }
    return list;
}

void Recorder::WriteAll() const
{
    Json answers = Json::object();
    for (const auto &[key, command] : commands_.items()) {
        if (Json list = ListOf(command); !list.empty()) {
            answers[key] = std::move(list);
        }
    }
    const std::filesystem::path directory = std::filesystem::path(path_).parent_path();
    for (const auto &[name, bytes] : payloads_) {
        ReplaceFile(directory / name, bytes);
    }
    ReplaceFile(path_, Json({{"answers", answers}}).dump(1) + "\n");
}

void Recorder::Write()
{
    failed_ = false;
    try {
        WriteAll();
    } catch (const std::runtime_error &error) {
        failed_ = true;
        unlink(TemporaryPath(path_).c_str());
        Report(std::string(error.what()) + ": the recording is not written");
    }
}

} // namespace standin
