// Events are handled in the order in which the system reports them, which is that in which they happened: the end of
// a client comes before the connection of the next client that the same script starts.

#include "server.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <exception>
#include <stdexcept>
#include <vector>

namespace standin {

// The keys of events. All other keys are session numbers.
static constexpr uint64_t kListenerKey = 0;
static constexpr uint64_t kSignalKey = UINT64_MAX;

static constexpr int kEventsAtOnce = 64;
static constexpr int kAcceptedAtOnce = 64;
static constexpr std::chrono::milliseconds kAcceptPause{100};

static SteadyTime Now()
{
    return std::chrono::steady_clock::now();
}

bool PeerHasGone(int socket)
{
    pollfd poller{socket, 0, 0};
    return poll(&poller, 1, 0) == 1 && (poller.revents & POLLHUP) != 0;
}

static void AddToEpoll(int epoll, int descriptor, uint32_t events, uint64_t key)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = key;
    if (epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event) < 0) {
        throw std::runtime_error(SystemError("epoll", errno));
    }
}

// Edge-triggered, because a request's last byte, which may stay in the queue for long, would otherwise be reported
// again and again.
void Watch::Add(int socket) const
{
    AddToEpoll(epoll_, socket, EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET, session_);
}

Server::Server(const Listener &listener, Signals *signals, Log *log, Factory factory)
    : listener_(listener.Get()), signals_(signals), log_(log), factory_(std::move(factory)),
      epoll_(epoll_create1(EPOLL_CLOEXEC))
{
    AddToEpoll(epoll_.Get(), signals->Input().Get(), EPOLLIN, kSignalKey);
    WatchListener();
}

void Server::Run()
{
    while (!drained_ || !sessions_.empty()) {
        HandleEvents();
        AdvanceBusy();
        AdvanceDue();
        WatchListener();
        log_->Tick();
    }
}

void Server::HandleEvents()
{
    epoll_event events[kEventsAtOnce];
    const int count = epoll_wait(epoll_.Get(), events, kEventsAtOnce, Timeout());
    if (count < 0 && errno != EINTR) {
        throw std::runtime_error(SystemError("epoll", errno));
    }
    for (int i = 0; i < count; ++i) {
        Handle(events[i].data.u64);
    }
}

void Server::Handle(uint64_t key)
{
    if (key == kSignalKey) {
        HandleSignals();
    } else if (key == kListenerKey) {
        AcceptSome();
    } else {
        Advance(key);
    }
}

// Milliseconds until something is due, rounded up; -1 if nothing is.
int Server::Timeout() const
{
    if (!busy_.empty()) {
        return 0;
    }
    SteadyTime due = std::min(log_->Due(), acceptAgain_);
    if (!timers_.empty()) {
        due = std::min(due, timers_.begin()->first);
    }
    if (due == kNever) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX));
}

// ---- Signals ----

void Server::HandleSignals()
{
    for (int signal = 0; (signal = signals_->Next()) != 0;) {
        if (signal == SIGHUP) {
            reload_();
        } else if (!stopping_) {
            Stop();
        }
    }
}

void Server::StopSession(Sessions::iterator place)
{
    place->second.session->Stop();
    Settle(place, Progress::More);
}

// No client can connect any more, but those in the backlog are still accepted.
void Server::Stop()
{
    stopping_ = true;
    shutdown(listener_, SHUT_RD);
    for (auto place = sessions_.begin(); place != sessions_.end(); ++place) {
        StopSession(place);
    }
}

// ---- Accepting ----

void Server::WatchListener()
{
    if (acceptAgain_ <= Now()) {
        acceptAgain_ = kNever;
    }
    const bool wanted = !drained_ && holder_ == 0 && acceptAgain_ == kNever;
    if (wanted == listening_) {
        return;
    }
    listening_ = wanted;
    if (wanted) {
        AddToEpoll(epoll_.Get(), listener_, EPOLLIN, kListenerKey);
    } else {
        epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, listener_, nullptr);
    }
}

// Accepts a limited number, so that sessions have their turn however many clients connect.
void Server::AcceptSome()
{
    for (int i = 0; i < kAcceptedAtOnce && holder_ == 0 && AcceptOne(); ++i) {
    }
}

// Returns false if no client waits, or if none can be accepted.
bool Server::AcceptOne()
{
    Descriptor socket(accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (socket.Get() >= 0) {
        complained_ = false;
        Open(std::move(socket));
        return true;
    }
    if (errno == ECONNABORTED || errno == EINTR) {
        return true;
    }
    const bool nobodyWaits = errno == EAGAIN || errno == EINVAL; // EINVAL: the listener is shut down
    // Without a session, no descriptor will become free for the clients that wait.
    drained_ = stopping_ && (nobodyWaits || sessions_.empty());
    if (!nobodyWaits) {
        PauseAccepting(SystemError("accept", errno));
    }
    return false;
}

// If descriptors run out, clients wait in the backlog until others have ended.
void Server::PauseAccepting(const std::string &reason)
{
    acceptAgain_ = Now() + kAcceptPause;
    if (!complained_) {
        Report(reason);
    }
    complained_ = true;
}

void Server::Open(Descriptor socket)
{
    const uint64_t number = accepted_ + 1;
    try {
        const Watch watch(epoll_.Get(), number);
        watch.Add(socket.Get());
        auto session = factory_({std::move(socket), number, std::chrono::system_clock::now(), Now()}, watch);
        const auto place = sessions_.emplace(number, Active{std::move(session)}).first;
        accepted_ = number;
        Settle(place, Progress::Waiting);
        if (stopping_) {
            StopSession(place);
        }
    } catch (const std::exception &error) {
        Report(error.what());
    }
}

// ---- Sessions ----

void Server::Advance(uint64_t number)
{
    const auto place = sessions_.find(number);
    if (place == sessions_.end()) {
        return; // it has ended since the event was reported
    }
    Progress progress = Progress::Done;
    try {
        progress = place->second.session->Advance();
    } catch (const std::exception &error) {
        Report(error.what());
    }
    Settle(place, progress);
}

// Notes what the session waits for, or ends it.
void Server::Settle(Sessions::iterator place, Progress progress)
{
    auto &[number, active] = *place;
    const bool done = progress == Progress::Done;
    const SteadyTime due = done ? kNever : active.session->Due();
    if (due != active.due) {
        timers_.erase({active.due, number});
        active.due = due;
        if (due != kNever) {
            timers_.emplace(due, number);
        }
    }
    if (!done && active.session->HoldsOthers()) {
        holder_ = number;
    } else if (holder_ == number) {
        holder_ = 0;
    }
    if (progress == Progress::More && !std::exchange(active.busy, true)) {
        busy_.push_back(number);
    }
    if (done) {
        sessions_.erase(place);
    }
}

void Server::AdvanceBusy()
{
    for (const uint64_t number : std::exchange(busy_, {})) {
        if (const auto place = sessions_.find(number); place != sessions_.end()) {
            place->second.busy = false;
            Advance(number);
        }
    }
}

void Server::AdvanceDue()
{
    std::vector<uint64_t> numbers;
    for (const SteadyTime now = Now(); const auto &[due, number] : timers_) {
        if (due > now) {
            break;
        }
        numbers.push_back(number);
    }
    for (const uint64_t number : numbers) {
        Advance(number);
    }
}

} // namespace standin
