// Each format has a function that makes a line from a record.

#include "log_formats.h"

#include "request_command.h"
#include "status_names.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace standin {

using Json = nlohmann::ordered_json;

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

std::string CommandText(const DecodedRequest &request)
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

bool IsFramed(ReplyClass replyClass)
{
    return replyClass == ReplyClass::Printed || replyClass == ReplyClass::Checked;
}

bool IsWhole(const SentBytes &sent, ReplyClass replyClass)
{
    return IsFramed(replyClass) && sent.count >= kHeaderSize &&
           sent.count - kHeaderSize >= ReadHeader(sent.head).length;
}

// ---- Text ----

// Quotes a text that could be mistaken for something else without quotes.
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
    return plain ? text : DumpJson(value);
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

std::string FieldText(const Field &field)
{
    return std::string(field.name) + "=" + (field.value.is_array() ? ListText(field.value) : BareOrQuoted(field.value));
}

// Adds the number's meaning.
static std::string ExplainedText(const Field &field)
{
    std::string text = FieldText(field);
    if (!field.meaning.empty()) {
        text.append("(").append(field.meaning).append(")");
    }
    return text;
}

static std::string RequestText(const DecodedRequest &request)
{
    std::string text = CommandText(request) + " " + std::to_string(request.code);
    for (const Field &field : request.fields) {
        text.append(" ").append(ExplainedText(field));
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
    const std::string_view name = header.codeOrStatus == 0 ? "" : StatusName(header.codeOrStatus);
    std::string text = "status " + StatusText(header.codeOrStatus);
    if (!name.empty()) {
        text.append(" ").append(name);
    }
    text += ", " + std::to_string(bytes);
    return text + (bytes == header.length ? "" : " of " + std::to_string(header.length)) + " bytes";
}

static std::string ReplyText(const LogEntry &entry)
{
    if (IsFramed(entry.replyClass)) {
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

static std::string EntryText(const LogEntry &entry, LogEvent event)
{
    const std::string start =
        TimeText(entry.time) + " #" + std::to_string(entry.connection) + " " + RequestText(entry.request) + " | ";
    const std::string remarks = RemarksText(entry.request);
    if (event == LogEvent::Request) {
        return start + "waiting" + remarks;
    }
    return start + ReplyText(entry) + FaultText(entry.fault) + " | " + std::string(entry.outcome) + ", " + entry.end +
           ", " + SecondsText(entry.taken) + remarks;
}

static std::string SummaryText(const LogSummary &summary)
{
    std::string text =
        "summary: " + std::to_string(summary.requests) + " requests, " + std::to_string(summary.broken) + " broken";
    if (summary.warned > 0) {
        text += ", " + std::to_string(summary.warned) + " with warnings";
    }
    for (const auto &[command, outcomes] : summary.counts) {
        text.append("; ").append(command);
        const char *separator = " ";
        for (const auto &[outcome, count] : outcomes) {
            text.append(std::exchange(separator, ", ")).append(std::to_string(count)).append(" ").append(outcome);
        }
    }
    return text;
}

// In the format commands, lines other than requests are comments.
static std::string CommentMark(LogFormat format)
{
    return format == LogFormat::Commands ? "# " : "";
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
    const bool framed = IsFramed(entry.replyClass);
    if (!framed || entry.sent.count < kHeaderSize) {
        return {{framed ? "headerBytes" : "bytes", entry.sent.count}};
    }
    const FrameHeader header = ReadHeader(entry.sent.head);
    Json reply = {{"status", header.codeOrStatus}, {"statusHex", StatusText(header.codeOrStatus)}};
    if (const std::string_view name = StatusName(header.codeOrStatus); !name.empty()) {
        reply["statusName"] = name;
    }
    reply["length"] = header.length;
    reply["bytes"] = entry.sent.count - kHeaderSize;
    return reply;
}

static Json Line(const char *event, std::chrono::system_clock::time_point time)
{
    return {{"event", event}, {"time", TimeText(time)}};
}

static Json EntryJson(const LogEntry &entry, LogEvent event)
{
    Json line = Line(event == LogEvent::Request ? "request" : "end", entry.time);
    line["connection"] = entry.connection;
    line.update(RequestJson(entry.request));
    if (event == LogEvent::Request) {
        return line;
    }
    line["reply"] = ReplyJson(entry);
    if (!entry.fault.empty()) {
        line["fault"] = entry.fault;
    }
    line["outcome"] = entry.outcome;
    line["end"] = entry.end;
    line["seconds"] = entry.taken.count();
    return line;
}

// ---- All formats ----

std::string FormatRequest(const DecodedRequest &request, LogFormat format)
{
    switch (format) {
    case LogFormat::Json:
        return DumpJson(RequestJson(request));
    case LogFormat::Commands:
        return RequestCommand(request);
    case LogFormat::Text:
        break;
    }
    return RequestText(request) + RemarksText(request);
}

std::string FormatStart(std::string_view kind, std::string_view name, LogFormat format)
{
    const auto now = std::chrono::system_clock::now();
    if (format == LogFormat::Json) {
        Json line = Line("start", now);
        line[std::string(kind)] = name;
        return DumpJson(line);
    }
    return (CommentMark(format) + TimeText(now) + " start: ").append(kind).append(" ").append(BareOrQuoted(name));
}

std::string FormatEntry(const LogEntry &entry, LogEvent event, LogFormat format)
{
    switch (format) {
    case LogFormat::Json:
        return DumpJson(EntryJson(entry, event));
    case LogFormat::Commands:
        return event == LogEvent::End ? RequestCommand(entry.request) : std::string();
    case LogFormat::Text:
        break;
    }
    return EntryText(entry, event);
}

std::string FormatSummary(const LogSummary &summary, LogFormat format)
{
    const auto now = std::chrono::system_clock::now();
    if (format == LogFormat::Json) {
        Json line = Line("summary", now);
        line["summary"] = {{"requests", summary.requests},
                           {"broken", summary.broken},
                           {"warned", summary.warned},
                           {"commands", summary.counts}};
        return DumpJson(line);
    }
    return CommentMark(format) + TimeText(now) + " " + SummaryText(summary);
}

bool TellsEveryRequest(LogFormat format)
{
    return format == LogFormat::Json;
}

} // namespace standin
