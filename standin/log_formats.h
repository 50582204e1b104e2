// The lines of the log and their formats. The texts have no newline at their end.
#ifndef PLAX_STANDIN_LOG_FORMATS_H
#define PLAX_STANDIN_LOG_FORMATS_H

#include "protocol_table.h"

#include <array>
#include <chrono>
#include <map>
#include <string>

namespace standin {

enum class LogFormat { Text, Json, Commands };

// The event that a line reports: a request has come, or it has ended.
enum class LogEvent { Request, End };

// What was sent to the client: the number of bytes, and the first ones, which are a frame's header.
struct SentBytes {
    std::array<uint8_t, kHeaderSize> head{};
    uint64_t count = 0;

    void Add(std::string_view bytes);
};

bool IsFramed(ReplyClass replyClass);

// Whether the client has its whole reply. A stream ends when the connection does.
bool IsWhole(const SentBytes &sent, ReplyClass replyClass);

// How the daemon of a relay ended a connection.
enum class DaemonEnd { AfterClient, Closed, Reset };

struct LogEntry {
    std::chrono::system_clock::time_point time;
    uint64_t connection = 0;
    DecodedRequest request;
    ReplyClass replyClass = ReplyClass::None; // how to read `sent`
    // The rest is known when the request has ended.
    SentBytes sent;
    std::string_view fault;   // played on purpose; empty: none
    std::string_view outcome; // counted in the summary
    std::string end;          // how the connection ended
    DaemonEnd daemonEnd = DaemonEnd::AfterClient;
    std::chrono::duration<double> taken{};
};

struct LogSummary {
    uint64_t requests = 0;
    uint64_t broken = 0;
    uint64_t warned = 0;
    std::map<std::string, std::map<std::string, uint64_t, std::less<>>> counts; // of outcomes, by command
};

// A decoded request alone, as the `decode` command shows it.
std::string FormatRequest(const DecodedRequest &request, LogFormat format);

// The start of a run with a socket or a script.
std::string FormatStart(std::string_view kind, std::string_view name, LogFormat format);
// Empty when the format has no line for the event.
std::string FormatEntry(const LogEntry &entry, LogEvent event, LogFormat format);
std::string FormatSummary(const LogSummary &summary, LogFormat format);

// A field as in the text format, without the meaning of its number.
std::string FieldText(const Field &field);

// The command's name in the log.
std::string CommandText(const DecodedRequest &request);

// Whether every request has a line when it comes. Otherwise only a request that waits for its answer has one.
bool TellsEveryRequest(LogFormat format);

} // namespace standin

#endif
