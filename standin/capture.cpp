#include "capture.h"

#include "status_names.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <stdexcept>

namespace standin {

// Wireshark cannot read longer packets.
static constexpr size_t kPacketMax = 262144;
// Limits a field's text, so that the packet has space for the bytes. The longest list of UUIDs is shorter.
static constexpr size_t kFieldMax = 100000;

static pcap_dumper_t *OpenFile(const std::string &path, pcap_t *format)
{
    const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    FILE *stream = descriptor >= 0 ? fdopen(descriptor, "w") : nullptr;
    if (stream == nullptr) {
        throw std::runtime_error(SystemError(path, errno));
    }
    return pcap_dump_fopen(format, stream);
}

Capture::Capture(std::string path)
    : path_(std::move(path)), format_(pcap_open_dead(DLT_USER0, kPacketMax), pcap_close),
      file_(OpenFile(path_, format_.get()), pcap_dump_close)
{
    if (file_ == nullptr || pcap_dump_flush(file_.get()) != 0) {
        throw std::runtime_error(SystemError(path_, errno));
    }
}

// ---- Descriptions ----

static void AddLine(std::string *text, std::string_view key, std::string_view value)
{
    text->append(key).append("\t").append(value.substr(0, kFieldMax)).append("\n");
}

static void AddLines(std::string *text, std::string_view key, const std::vector<std::string> &values, size_t first = 0)
{
    for (size_t i = first; i < values.size(); ++i) {
        AddLine(text, key, values[i]);
    }
}

static std::string Description(std::string_view kind, const LogEntry &entry)
{
    std::string text;
    AddLine(&text, "kind", kind);
    AddLine(&text, "connection", std::to_string(entry.connection));
    AddLine(&text, "command", CommandText(entry.request));
    return text;
}

static std::string RequestDescription(const LogEntry &entry)
{
    std::string text = Description("request", entry);
    for (const Field &field : entry.request.fields) {
        AddLine(&text, "field", FieldText(field));
    }
    AddLines(&text, "violation", entry.request.violations);
    AddLines(&text, "warning", entry.request.warnings);
    return text;
}

static std::string ReplyDescription(const LogEntry &entry)
{
    std::string text = Description("reply", entry);
    if (entry.sent.count >= kHeaderSize) {
        AddLine(&text, "statusName", StatusName(ReadHeader(entry.sent.head).codeOrStatus));
    }
    return text;
}

// Adds what was not known when the request came.
static std::string EndDescription(const LogEntry &entry, size_t knownViolations)
{
    std::string text = Description("end", entry);
    AddLine(&text, "outcome", entry.outcome);
    AddLine(&text, "end", entry.end);
    if (!entry.fault.empty()) {
        AddLine(&text, "fault", entry.fault);
    }
    AddLines(&text, "violation", entry.request.violations, knownViolations);
    return text;
}

// ---- Packets ----

void Capture::RequestCame(const LogEntry &entry, std::string_view bytes)
{
    exchanges_[entry.connection].violations = entry.request.violations.size();
    Write(RequestDescription(entry), {std::chrono::system_clock::now(), std::string(bytes), bytes.size()});
}

// A framed reply is one packet, however many pieces it is sent in.
void Capture::ReplySent(const LogEntry &entry, std::string_view bytes)
{
    const auto now = std::chrono::system_clock::now();
    if (!IsFramed(entry.replyClass)) {
        Write(Description("stream", entry), {now, std::string(bytes), bytes.size()});
        return;
    }
    Packet &reply = exchanges_[entry.connection].reply;
    reply.time = now;
    reply.bytes += bytes.substr(0, kPacketMax - std::min(reply.bytes.size(), kPacketMax));
    reply.length += bytes.size();
    if (IsWhole(entry.sent, entry.replyClass)) {
        WriteReply(entry, &reply);
    }
}

void Capture::Ended(const LogEntry &entry)
{
    Exchange &exchange = exchanges_[entry.connection];
    if (exchange.reply.length > 0) {
        WriteReply(entry, &exchange.reply);
    }
    Write(EndDescription(entry, exchange.violations), {std::chrono::system_clock::now(), {}, 0});
    exchanges_.erase(entry.connection);
}

void Capture::WriteReply(const LogEntry &entry, Packet *reply)
{
    Write(ReplyDescription(entry), *reply);
    *reply = {};
}

static std::string LengthBytes(size_t length)
{
    std::string bytes;
    for (const uint32_t shift : {24U, 16U, 8U, 0U}) {
        bytes += static_cast<char>(length >> shift & 0xffU);
    }
    return bytes;
}

void Capture::Write(const std::string &description, const Packet &packet)
{
    const std::string head = LengthBytes(description.size()) + description;
    const std::string bytes = (head + packet.bytes).substr(0, kPacketMax);
    const auto sinceEpoch = std::chrono::floor<std::chrono::microseconds>(packet.time.time_since_epoch());
    pcap_pkthdr header{};
    header.ts = {sinceEpoch.count() / 1000000, sinceEpoch.count() % 1000000};
    header.caplen = static_cast<bpf_u_int32>(bytes.size());
    header.len = static_cast<bpf_u_int32>(head.size() + packet.length);
    pcap_dump(reinterpret_cast<u_char *>(file_.get()), &header, reinterpret_cast<const u_char *>(bytes.data()));
    Flush();
}

// Called after each packet, so that a capture can be read while it grows.
void Capture::Flush()
{
    if (pcap_dump_flush(file_.get()) != 0 || ferror(pcap_dump_file(file_.get())) != 0) {
        if (!std::exchange(failed_, true)) {
            Report(SystemError(path_, errno) + ": packets of the capture are lost");
        }
    }
}

} // namespace standin
