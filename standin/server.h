// One loop serves all connections. Sessions never wait, so a slow client delays no other, no threads are needed, and
// events are handled and logged in their order.
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

// Handles one connection. If a function throws, this connection ends, and no other.
class Session {
public:
    Session() = default;
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    virtual ~Session() = default;

    // Does what is possible without waiting and without delaying other sessions.
    virtual Progress Advance() = 0;
    // The program ends: do not wait for a client, a daemon or a pause any more.
    virtual void Stop() = 0;

    // When to call Advance() even if no socket has changed.
    [[nodiscard]] SteadyTime Due() const
    {
        return due_;
    }
    // Whether no other connection may be accepted for now.
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

    // Returns after SIGTERM or SIGINT, when all connections that had come in by then have been served to their end.
    // That takes little time, so further signals change nothing.
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

// Whether the peer has closed both directions: nothing can be sent, and nothing more will arrive.
bool PeerHasGone(int socket);

} // namespace standin

#endif
