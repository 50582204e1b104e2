// The log: one line for each request, as text, as JSON or as a shell command, and a summary at the end.
#ifndef PLAX_STANDIN_LOG_H
#define PLAX_STANDIN_LOG_H

#include "protocol_table.h"
#include "socket_io.h"

#include <array>
#include <chrono>
#include <map>
#include <mutex>
#include <string>

namespace standin {

enum class LogFormat { Text, Json, Commands };

// What went back to the client: the bytes are counted, and the first ones kept, which are a frame's header.
struct SentBytes {
    std::array<uint8_t, kHeaderSize> head{};
    uint64_t count = 0;

    void Add(std::string_view bytes);
};

struct LogEntry {
    std::chrono::system_clock::time_point time;
    uint64_t connection;
    DecodedRequest request;
    ReplyClass replyClass; // how to read `sent`
    SentBytes sent;
    std::string_view fault;   // played on purpose; empty: none
    std::string_view outcome; // counted in the summary
    std::string end;          // how the connection ended
    std::chrono::duration<double> taken;
};

// A decoded request alone, as the `decode` command shows it. No newline.
std::string FormatRequest(const DecodedRequest &request, LogFormat format);

class Log {
public:
    // Appends to the file at `path`, or writes to standard output when it is "-". Throws when it can't be opened.
    Log(const std::string &path, LogFormat format);

    void Write(const LogEntry &entry);
    void WriteSummary();

    [[nodiscard]] bool SawViolation() const
    {
        return broken_ > 0;
    }
    [[nodiscard]] bool SawWarning() const
    {
        return warned_ > 0;
    }
    // False when a line could not be written.
    [[nodiscard]] bool Complete() const
    {
        return complete_;
    }

private:
    void WriteLine(std::string line);

    LogFormat format_;
    Descriptor file_;
    std::mutex mutex_;
    bool complete_ = true;
    uint64_t requests_ = 0;
    uint64_t broken_ = 0;
    uint64_t warned_ = 0;
    std::map<std::string, std::map<std::string, uint64_t, std::less<>>> counts_;
};

} // namespace standin

#endif
