// The one loop in which all connections are served. No session ever waits, so a slow client keeps no other waiting, no
// thread can be missing, and what happens first is also seen, and logged, first.
#ifndef PLAX_STANDIN_SERVER_H
#define PLAX_STANDIN_SERVER_H

#include "listener.h"
#include "log.h"
#include "signals.h"

#include <chrono>
#include <climits>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <utility>

namespace standin {

struct Connection {
    Descriptor socket; // not blocking
    uint64_t number;   // counted from 1 in the order of arrival, without gaps
    std::chrono::system_clock::time_point since;
    SteadyTime start; // the same moment
};

// Wakes a session whenever something changes at a socket.
class Watch {
public:
    Watch(int epoll, uint64_t session) : epoll_(epoll), session_(session) {}
    void Add(int socket) const; // throws when the system refuses

private:
    int epoll_;
    uint64_t session_;
};

enum class Progress {
    More,    // there is more to do at once
    Waiting, // until something changes at a watched socket, or until the time of Due()
    Done,    // the connection has ended
};

// What is done with one connection. When a function throws, this connection ends, and no other.
class Session {
public:
    Session() = default;
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    virtual ~Session() = default;

    // Goes on as far as is possible without waiting, and without keeping the others waiting.
    virtual Progress Advance() = 0;
    // The program ends: no client, daemon or pause is waited for from now on.
    virtual void Stop() = 0;

    // When to advance though nothing has changed.
    [[nodiscard]] SteadyTime Due() const
    {
        return due_;
    }
    // Whether nobody else can be accepted meanwhile.
    [[nodiscard]] bool HoldsOthers() const
    {
        return holdsOthers_;
    }

protected:
    SteadyTime due_ = kNever;
    bool holdsOthers_ = false;
};

class Server {
public:
    using Factory = std::function<std::unique_ptr<Session>(Connection connection, const Watch &watch)>;

    Server(const Listener &listener, Signals *signals, Log *log, Factory factory);

    // Called on SIGHUP.
    void OnReload(std::function<void()> reload)
    {
        reload_ = std::move(reload);
    }

    // Returns after SIGTERM or SIGINT, when every connection that had come in by then has been served to its end.
    // That takes no long time, so further such signals change nothing.
    void Run();

private:
    struct Active {
        std::unique_ptr<Session> session;
        SteadyTime due = kNever;
        bool busy = false;
    };
    using Sessions = std::map<uint64_t, Active>;

    void HandleEvents();
    void Handle(uint64_t key);
    void HandleSignals();
    void AcceptSome();
    bool AcceptOne();
    void Open(Descriptor socket);
    void PauseAccepting(const std::string &reason);
    void WatchListener();
    void Advance(uint64_t number);
    void Settle(Sessions::iterator place, Progress progress);
    void AdvanceBusy();
    void AdvanceDue();
    void StopSession(Sessions::iterator place);
    void Stop();
    [[nodiscard]] int Timeout() const;

    int listener_;
    Signals *signals_;
    Log *log_;
    Factory factory_;
    std::function<void()> reload_ = [] {};
    Descriptor epoll_;
    Sessions sessions_;
    std::set<std::pair<SteadyTime, uint64_t>> timers_; // of the sessions that have one
    std::deque<uint64_t> busy_;                        // sessions that have more to do
    uint64_t accepted_ = 0;
    uint64_t holder_ = 0;             // the session that holds others, or 0
    SteadyTime acceptAgain_ = kNever; // when accepting is paused
    bool listening_ = false;          // the listener is watched
    bool complained_ = false;         // that nobody can be accepted
    bool stopping_ = false;
    bool drained_ = false; // after Stop(): nobody waits to be accepted any more
};

// Whether nothing more can be sent to the socket's peer, nor come from it apart from what has arrived already.
bool PeerHasGone(int socket);

} // namespace standin

#endif
