// The lines of the log: what they tell, and how each format writes it. No line ends in a newline here.
#ifndef PLAX_STANDIN_LOG_FORMATS_H
#define PLAX_STANDIN_LOG_FORMATS_H

#include "protocol_table.h"

#include <array>
#include <chrono>
#include <map>
#include <string>

namespace standin {

enum class LogFormat { Text, Json, Commands };

// What a line about a request tells: that it has come, or what became of it.
enum class LogEvent { Request, End };

// What went back to the client: the bytes are counted, and the first ones kept, which are a frame's header.
struct SentBytes {
    std::array<uint8_t, kHeaderSize> head{};
    uint64_t count = 0;

    void Add(std::string_view bytes);
};

bool IsFramed(ReplyClass replyClass);

// Whether a client that reads this as its reply has read all of it. The end of a stream is that of the connection.
bool IsWhole(const SentBytes &sent, ReplyClass replyClass);

// How a relay's daemon ended a connection.
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

// A run begins: with this socket, or this script.
std::string FormatStart(std::string_view kind, std::string_view name, LogFormat format);
// Empty when the format has no line for the event.
std::string FormatEntry(const LogEntry &entry, LogEvent event, LogFormat format);
std::string FormatSummary(const LogSummary &summary, LogFormat format);

// A field as the text format has it, but without what a number stands for.
std::string FieldText(const Field &field);

// The command's word, as the log names it.
std::string CommandText(const DecodedRequest &request);

// Whether every request has a line when it comes, and not only one that waits for its answer.
bool TellsEveryRequest(LogFormat format);

} // namespace standin

#endif
