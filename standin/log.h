// The log: a line for each request, in the order of the requests, and a summary at the end.
//
// A request's line says how its connection ended, but a client may send its next request as soon as it has its reply.
// So lines wait: a line takes its place in the log when its client can go on, and later lines follow it. If a client
// stays connected, they wait for one second. Then a line in that place says that the request has come, and the
// request's last line follows when it ends.
#ifndef PLAX_STANDIN_LOG_H
#define PLAX_STANDIN_LOG_H

#include "log_file.h"
#include "log_formats.h"

#include <deque>
#include <functional>
#include <memory>
#include <vector>

namespace standin {

using SteadyTime = std::chrono::steady_clock::time_point;
inline constexpr SteadyTime kNever = SteadyTime::max();

// A request that the log has not finished with.
struct LogRecord {
    LogEntry entry;
    SteadyTime came{};
    SteadyTime released = kNever;
    bool told = false; // there is a line that says that it has come
    bool ended = false;
};

using LogTicket = std::shared_ptr<LogRecord>;

// Is called for every request and reply.
class Witness {
public:
    Witness() = default;
    Witness(const Witness &) = delete;
    Witness &operator=(const Witness &) = delete;
    virtual ~Witness() = default;

    virtual void RequestCame(const LogEntry &entry, std::string_view bytes) = 0;
    // More bytes of the reply were sent; the entry already counts them.
    virtual void ReplySent(const LogEntry &entry, std::string_view bytes) = 0;
    virtual void Ended(const LogEntry &entry) = 0;
};

class Log {
public:
    // Called for every request when it comes, in their order, and when it has ended.
    using Observer = std::function<void(const LogEntry &, LogEvent)>;

    Log(const std::string &path, Descriptor file, LogFormat format);

    void Observe(Observer observer);
    void AddWitness(Witness *witness); // who outlives the log

    void Start(std::string_view kind, std::string_view name);

    // The request has come. Its entry may be completed until it ends.
    LogTicket Add(std::chrono::system_clock::time_point time, uint64_t connection, Bytes request);
    // More bytes of its reply were sent.
    void AddSent(const LogTicket &ticket, std::string_view bytes);
    // Its client can send the next request. Only the first call has an effect.
    void Release(const LogTicket &ticket);
    // The request has ended and its entry is complete.
    void End(const LogTicket &ticket);

    // Writes the lines that must not wait longer. Call it at Due() or more often.
    void Tick();
    [[nodiscard]] SteadyTime Due() const;

    // Called when all requests have ended.
    void WriteSummary();

    [[nodiscard]] bool SawViolation() const
    {
        return summary_.broken > 0;
    }
    [[nodiscard]] bool SawWarning() const
    {
        return summary_.warned > 0;
    }
    LogFile &File()
    {
        return file_;
    }

private:
    // A line that waits for its turn.
    struct Line {
        LogTicket ticket;
        LogEvent event;
    };

    void Tell(const Line &line);
    void TellHanging();
    void GiveUp(const Line &line);
    void WriteReady();

    LogFormat format_;
    std::vector<Observer> observers_;
    std::vector<Witness *> witnesses_;
    std::deque<LogTicket> untold_; // requests in the order in which they came
    std::deque<Line> lines_;       // in the order in which they are to be written
    LogSummary summary_;
    LogFile file_;
};

} // namespace standin

#endif
