// Lines are made by the threads of the connections and written one by one, each with as few writes as the system
// allows, so that a reader of the log sees whole lines.

#include "log.h"

#include "request_command.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <stdexcept>

namespace standin {

using Json = nlohmann::ordered_json;

// A request's texts may hold any bytes. What is no UTF-8 is replaced, and a line stays one line.
static std::string Dump(const Json &value)
{
    return value.dump(-1, ' ', true, Json::error_handler_t::replace);
}

static std::string TimeText(std::chrono::system_clock::time_point time)
{
    const auto sinceEpoch = std::chrono::floor<std::chrono::milliseconds>(time.time_since_epoch());
    const time_t seconds = std::chrono::floor<std::chrono::seconds>(sinceEpoch).count();
    tm parts{};
    gmtime_r(&seconds, &parts);
    char day[32];
    strftime(day, sizeof day, "%Y-%m-%dT%H:%M:%S", &parts);
    char text[40];
    snprintf(text, sizeof text, "%s.%03dZ", day, static_cast<int>(sinceEpoch.count() % 1000));
    return text;
}

static std::string StatusText(uint32_t status)
{
    char text[16];
    snprintf(text, sizeof text, "0x%08x", status);
    return text;
}

static std::string CommandText(const DecodedRequest &request)
{
    if (request.command != nullptr) {
        return std::string(request.command->word);
    }
    return "unknown";
}

void SentBytes::Add(std::string_view bytes)
{
    for (size_t i = 0; i < bytes.size() && count + i < head.size(); ++i) {
        head[count + i] = static_cast<uint8_t>(bytes[i]);
    }
    count += bytes.size();
}

// ---- Text ----

// Quotes a text that could be taken for something else when it stands bare in the line.
static std::string BareOrQuoted(const Json &value)
{
    if (!value.is_string()) {
        return value.dump();
    }
    const auto &text = value.get_ref<const std::string &>();
    const auto isPlain = [](char c) {
        return isalnum(static_cast<unsigned char>(c)) != 0 || strchr("-_./:+", c) != nullptr;
    };
    const bool plain =
        !text.empty() && text.find('\0') == std::string::npos && std::all_of(text.begin(), text.end(), isPlain);
    return plain ? text : Dump(value);
}

static std::string ListText(const Json &list)
{
    std::string text = "[";
    for (const Json &entry : list) {
        text += text.size() > 1 ? "," : "";
        text += BareOrQuoted(entry);
    }
    return text + "]";
}

static std::string FieldText(const Field &field)
{
    std::string text = std::string(field.name) + "=";
    text += field.value.is_array() ? ListText(field.value) : BareOrQuoted(field.value);
    if (!field.meaning.empty()) {
        text.append("(").append(field.meaning).append(")");
    }
    return text;
}

static std::string RequestText(const DecodedRequest &request)
{
    std::string text = CommandText(request) + " " + std::to_string(request.code);
    for (const Field &field : request.fields) {
        text.append(" ").append(FieldText(field));
    }
    return text;
}

static std::string ListedText(const char *head, const std::vector<std::string> &remarks)
{
    std::string text;
    for (const std::string &remark : remarks) {
        text += (text.empty() ? head : "; ") + remark;
    }
    return text;
}

static std::string RemarksText(const DecodedRequest &request)
{
    return ListedText(" | BROKEN: ", request.violations) + ListedText(" | WARNING: ", request.warnings);
}

static std::string FrameText(const SentBytes &sent)
{
    if (sent.count == 0) {
        return "nothing";
    }
    if (sent.count < kHeaderSize) {
        return std::to_string(sent.count) + " of 8 header bytes";
    }
    const FrameHeader header = ReadHeader(sent.head);
    const uint64_t bytes = sent.count - kHeaderSize;
    std::string text = "status " + StatusText(header.codeOrStatus) + ", " + std::to_string(bytes);
    return text + (bytes == header.length ? "" : " of " + std::to_string(header.length)) + " bytes";
}

static std::string ReplyText(const LogEntry &entry)
{
    if (entry.replyClass == ReplyClass::Printed || entry.replyClass == ReplyClass::Checked) {
        return FrameText(entry.sent);
    }
    return entry.sent.count == 0 ? "nothing" : std::to_string(entry.sent.count) + " bytes streamed";
}

static std::string SecondsText(std::chrono::duration<double> taken)
{
    char text[32];
    snprintf(text, sizeof text, "%.3f s", taken.count());
    return text;
}

static std::string FaultText(std::string_view fault)
{
    std::string text;
    return fault.empty() ? text : text.append(" (fault ").append(fault).append(")");
}

static std::string EntryText(const LogEntry &entry)
{
    return TimeText(entry.time) + " #" + std::to_string(entry.connection) + " " + RequestText(entry.request) + " | " +
           ReplyText(entry) + FaultText(entry.fault) + " | " + std::string(entry.outcome) + ", " + entry.end + ", " +
           SecondsText(entry.taken) + RemarksText(entry.request);
}

// ---- JSON ----

static Json RequestJson(const DecodedRequest &request)
{
    Json fields = Json::object();
    for (const Field &field : request.fields) {
        fields[std::string(field.name)] = field.value;
    }
    return {{"command", CommandText(request)},  {"code", request.code},
            {"length", request.length},         {"fields", fields},
            {"violations", request.violations}, {"warnings", request.warnings}};
}

static Json ReplyJson(const LogEntry &entry)
{
    const bool framed = entry.replyClass == ReplyClass::Printed || entry.replyClass == ReplyClass::Checked;
    if (!framed || entry.sent.count < kHeaderSize) {
        return {{framed ? "headerBytes" : "bytes", entry.sent.count}};
    }
    const FrameHeader header = ReadHeader(entry.sent.head);
    return {{"status", header.codeOrStatus}, {"length", header.length}, {"bytes", entry.sent.count - kHeaderSize}};
}

static Json EntryJson(const LogEntry &entry)
{
    Json line = {{"time", TimeText(entry.time)}, {"connection", entry.connection}};
    line.update(RequestJson(entry.request));
    line["reply"] = ReplyJson(entry);
    if (!entry.fault.empty()) {
        line["fault"] = entry.fault;
    }
    line["outcome"] = entry.outcome;
    line["end"] = entry.end;
    line["seconds"] = entry.taken.count();
    return line;
}

// ---- The log ----

std::string FormatRequest(const DecodedRequest &request, LogFormat format)
{
    switch (format) {
    case LogFormat::Json:
        return Dump(RequestJson(request));
    case LogFormat::Commands:
        return RequestCommand(request);
    case LogFormat::Text:
        break;
    }
    return RequestText(request) + RemarksText(request);
}

static std::string FormatEntry(const LogEntry &entry, LogFormat format)
{
    switch (format) {
    case LogFormat::Json:
        return Dump(EntryJson(entry));
    case LogFormat::Commands:
        return RequestCommand(entry.request);
    case LogFormat::Text:
        break;
    }
    return EntryText(entry);
}

static Descriptor OpenLog(const std::string &path)
{
    Descriptor file(path == "-" ? fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)
                                : open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666));
    if (file.Get() < 0) {
        throw std::runtime_error(SystemError(path == "-" ? "standard output" : path, errno));
    }
    return file;
}

Log::Log(const std::string &path, LogFormat format) : format_(format), file_(OpenLog(path)) {}

void Log::WriteLine(std::string line)
{
    line += '\n';
    std::string_view rest = line;
    while (!rest.empty()) {
        const ssize_t count = write(file_.Get(), rest.data(), rest.size());
        if (count < 0) {
            complete_ = false;
            return;
        }
        rest.remove_prefix(static_cast<size_t>(count));
    }
}

void Log::Write(const LogEntry &entry)
{
    const std::string line = FormatEntry(entry, format_);
    const std::lock_guard lock(mutex_);
    ++requests_;
    if (!entry.request.violations.empty()) {
        ++broken_;
    }
    if (!entry.request.warnings.empty()) {
        ++warned_;
    }
    ++counts_[CommandText(entry.request)][std::string(entry.outcome)];
    WriteLine(line);
}

void Log::WriteSummary()
{
    const std::lock_guard lock(mutex_);
    if (format_ == LogFormat::Json) {
        WriteLine(Dump(
            {{"summary", {{"requests", requests_}, {"broken", broken_}, {"warned", warned_}, {"commands", counts_}}}}));
        return;
    }
    const char *comment = format_ == LogFormat::Commands ? "# " : "";
    std::string text = comment + std::string("summary: ") + std::to_string(requests_) + " requests, " +
                       std::to_string(broken_) + " broken";
    if (warned_ > 0) {
        text += ", " + std::to_string(warned_) + " with warnings";
    }
    for (const auto &[command, outcomes] : counts_) {
        text.append("; ").append(command);
        const char *separator = " ";
        for (const auto &[outcome, count] : outcomes) {
            text.append(std::exchange(separator, ", ")).append(std::to_string(count)).append(" ").append(outcome);
        }
    }
    WriteLine(text);
}

} // namespace standin
