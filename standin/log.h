// The log: a line for each request, in the order of the requests, and a summary at the end.
//
// A request's line tells how its connection ended, so it can't be written before that; and the client may send its next
// request as soon as it has its reply. The lines therefore wait for each other: each takes its place as soon as its
// client can go on. A client that stays connected holds up the others for a second at most: then a line in this place
// says that the request has come, and its last line follows when it has ended.
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

// One request on its way through the log.
struct LogRecord {
    LogEntry entry;
    SteadyTime came{};
    SteadyTime released = kNever;
    bool told = false; // there is a line that says that it has come
    bool ended = false;
};

using LogTicket = std::shared_ptr<LogRecord>;

// Sees all that passes.
class Witness {
public:
    Witness() = default;
    Witness(const Witness &) = delete;
    Witness &operator=(const Witness &) = delete;
    virtual ~Witness() = default;

    virtual void RequestCame(const LogEntry &entry, std::string_view bytes) = 0;
    // The next bytes of the reply went out; the entry counts them already.
    virtual void ReplySent(const LogEntry &entry, std::string_view bytes) = 0;
    virtual void Ended(const LogEntry &entry) = 0;
};

class Log {
public:
    // Called for every request when it comes, in the order in which they come, and when it has ended.
    using Observer = std::function<void(const LogEntry &, LogEvent)>;

    Log(const std::string &path, Descriptor file, LogFormat format);

    void Observe(Observer observer);
    void AddWitness(Witness *witness); // who outlives the log

    void Start(std::string_view kind, std::string_view name);

    // The request has come. Its entry can be added to until its end.
    LogTicket Add(std::chrono::system_clock::time_point time, uint64_t connection, Bytes request);
    // The next bytes of its reply went out.
    void AddSent(const LogTicket &ticket, std::string_view bytes);
    // Its client can go on to the next request. Called more than once, the first call counts.
    void Release(const LogTicket &ticket);
    // Everything about it is known.
    void End(const LogTicket &ticket);

    // Writes what must not wait longer; to be called when Due() has come, or more often.
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
