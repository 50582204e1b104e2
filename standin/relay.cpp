// Bytes and half-closes are easy to pass on. A reset is not: the system resets a local connection when it is closed
// with bytes in it that nobody has read, and a relay that has read everything cannot bring that about. So each
// direction looks at the bytes in its queue, sends them on, and removes all but the last one. That one is removed when
// its sender ends in an orderly way, and left where it is when the connection has to end with a reset.

#include "relay.h"

#include "request_input.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <vector>

namespace standin {

static constexpr const char *kEndOfTheRelay = "ended by the relay's end";

namespace {

// Collects a request's bytes for the decoder, and counts what comes after them.
struct RequestCapture {
    std::vector<uint8_t> bytes;
    uint64_t bytesAfterEnd = 0;
};

struct Flow {
    int from;
    int to;
    const char *sender;  // what the log calls the one who sends
    std::string pending; // looked at, but not yet sent on
    size_t unread = 0;   // bytes that still lie in the queue of `from`, `pending` included
    bool ended = false;
};

// Clients reach the daemon in the order in which they came, though each is served by a thread of its own: a script's
// next command must not overtake the one before. Constructed, it is the connection's turn; destroyed, the next one's.
class Turn {
public:
    explicit Turn(uint64_t number)
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [=] { return next == number; });
    }

    ~Turn()
    {
        const std::lock_guard lock(mutex);
        ++next;
        changed.notify_all();
    }

    Turn(const Turn &) = delete;
    Turn &operator=(const Turn &) = delete;

private:
    static inline std::mutex mutex;
    static inline std::condition_variable changed;
    static inline uint64_t next = 1;
};

enum class Step { Moved, Waiting, Ended, Reset };

struct Relay {
    Flow request;
    Flow reply;
    RequestCapture capture;
    SentBytes sent;
    std::chrono::system_clock::time_point lastReply;
    std::stop_token stop;
    std::string end; // who ended first, and how; empty when it was the relay itself
};

} // namespace

// How many of the bytes that come next belong to the request.
static size_t RequestBytesDue(const std::vector<uint8_t> &bytes)
{
    if (bytes.size() < kHeaderSize) {
        return kHeaderSize - bytes.size();
    }
    const uint32_t length = ReadHeader(bytes).length;
    return length > kRequestLengthMax ? 0 : kHeaderSize + length - bytes.size();
}

static void Capture(RequestCapture *capture, std::string_view bytes)
{
    while (!bytes.empty()) {
        const size_t count = std::min(RequestBytesDue(capture->bytes), bytes.size());
        if (count == 0) {
            capture->bytesAfterEnd += bytes.size();
            return;
        }
        capture->bytes.insert(capture->bytes.end(), bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(count));
        bytes.remove_prefix(count);
    }
}

// Looks at bytes that no one has looked at yet.
static Step Look(Flow *flow)
{
    char bytes[16384];
    const ssize_t count = recv(flow->from, bytes, sizeof bytes, MSG_PEEK | MSG_DONTWAIT);
    if (count < 0) {
        return errno == EAGAIN ? Step::Waiting : Step::Reset;
    }
    flow->pending.assign(bytes, static_cast<size_t>(count));
    flow->unread += flow->pending.size();
    return count == 0 ? Step::Ended : Step::Moved;
}

static void RemoveFromQueue(Flow *flow, size_t left)
{
    char bytes[16384];
    while (flow->unread > left) {
        const ssize_t count = recv(flow->from, bytes, std::min(sizeof bytes, flow->unread - left), MSG_DONTWAIT);
        if (count <= 0) {
            return;
        }
        flow->unread -= static_cast<size_t>(count);
    }
}

// A receiver that takes no more bytes makes its sender's next send fail, as it would without a relay.
static Step SendOn(Flow *flow)
{
    const ssize_t count = send(flow->to, flow->pending.data(), flow->pending.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count >= 0) {
        flow->pending.erase(0, static_cast<size_t>(count));
        RemoveFromQueue(flow, flow->pending.size() + 1);
        return Step::Moved;
    }
    if (errno == EAGAIN) {
        return Step::Waiting;
    }
    if (errno != EPIPE) {
        return Step::Reset;
    }
    shutdown(flow->from, SHUT_RD);
    flow->ended = true;
    return Step::Moved;
}

// An orderly end: the receiver learns of it, and also when the sender takes no more either.
static void PassOnEnd(Flow *flow)
{
    RemoveFromQueue(flow, 0);
    shutdown(flow->to, PeerHasGone(flow->from) ? SHUT_RDWR : SHUT_WR);
    flow->ended = true;
}

// Notes the first end only. At the program's end the daemon's side is shut down from here, which cuts short whatever a
// client that is still there was waiting for.
static void NoteEnd(Relay *relay, const Flow &flow, const char *how)
{
    if (!relay->end.empty()) {
        return;
    }
    const bool endedHere = &flow == &relay->reply && relay->stop.stop_requested();
    if (!endedHere) {
        relay->end = std::string(flow.sender) + how;
    } else if (!PeerHasGone(relay->request.from)) {
        relay->end = kEndOfTheRelay;
    }
}

template <typename Observer>
static Step Advance(Relay *relay, Flow *flow, const Observer &observe)
{
    if (flow->ended) {
        return Step::Waiting;
    }
    if (flow->pending.empty()) {
        const Step step = Look(flow);
        if (step == Step::Ended) {
            NoteEnd(relay, *flow, " closed");
            PassOnEnd(flow);
            return Step::Moved;
        }
        if (step != Step::Moved) {
            return step;
        }
        observe(flow->pending);
    }
    return SendOn(flow);
}

static Step AdvanceBoth(Relay *relay)
{
    const Step request =
        Advance(relay, &relay->request, [=](std::string_view bytes) { Capture(&relay->capture, bytes); });
    const Step reply = Advance(relay, &relay->reply, [=](std::string_view bytes) {
        relay->sent.Add(bytes);
        relay->lastReply = std::chrono::system_clock::now();
    });
    if (request == Step::Reset) {
        NoteEnd(relay, relay->request, " reset");
    }
    if (reply == Step::Reset) {
        NoteEnd(relay, relay->reply, " reset");
    }
    if (request == Step::Reset || reply == Step::Reset) {
        return Step::Reset;
    }
    return request == Step::Moved || reply == Step::Moved ? Step::Moved : Step::Waiting;
}

// The byte that stays in a queue would wake a poll again and again, so changes are waited for instead of states.
static void WatchChanges(const Descriptor &watch, int socket)
{
    const int offset = 0;
    epoll_event event{EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET, {}};
    if (setsockopt(socket, SOL_SOCKET, SO_PEEK_OFF, &offset, sizeof offset) < 0 ||
        epoll_ctl(watch.Get(), EPOLL_CTL_ADD, socket, &event) < 0) {
        throw std::runtime_error(SystemError("epoll", errno));
    }
}

// Once the program has been told to end, a daemon that takes nothing more is not waited for much longer.
static constexpr int kPatienceAtEndMs = 1000;

static void Pass(Relay *relay)
{
    const Descriptor watch(epoll_create1(EPOLL_CLOEXEC));
    WatchChanges(watch, relay->request.from);
    WatchChanges(watch, relay->reply.from);
    while (!relay->request.ended || !relay->reply.ended) {
        const Step step = AdvanceBoth(relay);
        if (step == Step::Reset) {
            return;
        }
        if (step == Step::Waiting) {
            epoll_event event{};
            if (epoll_wait(watch.Get(), &event, 1, relay->stop.stop_requested() ? kPatienceAtEndMs : -1) == 0) {
                return;
            }
        }
    }
}

static LogEntry EntryFor(const Connection &connection, const RequestCapture &capture)
{
    LogEntry entry{
        connection.since, connection.number, DecodeRequest(capture.bytes), ReplyClass::None, {}, {}, {}, {}, {}};
    if (capture.bytesAfterEnd > 0 && entry.request.length <= kRequestLengthMax) {
        entry.request.violations.push_back(BytesAfterEnd(capture.bytesAfterEnd));
    }
    entry.replyClass = ReplyClassOf(entry.request);
    return entry;
}

// The client has connected already, so it cannot be told otherwise than by a reset.
static void TurnAway(Connection &connection, int error, Log *log)
{
    RequestCapture capture;
    ReadRequest(connection.socket.Get(), &capture.bytes);
    if (capture.bytes.empty()) {
        return;
    }
    LogEntry entry = EntryFor(connection, capture);
    entry.outcome = "unreachable";
    entry.end = SystemError("no daemon", error);
    log->Write(entry);
}

// Returns a connection to the daemon, with *error 0, or an unconnected socket, with *error the reason. A daemon whose
// queue of clients is full is waited for, as a client would, but not beyond the end of the program.
static Descriptor ConnectInTurn(const Connection &connection, const std::string &path, int *error)
{
    const Turn turn(connection.number);
    Descriptor daemon = NewSocket(0);
    const timeval lookAgain{0, 100000};
    setsockopt(daemon.Get(), SOL_SOCKET, SO_SNDTIMEO, &lookAgain, sizeof lookAgain);
    do {
        *error = Connect(daemon, path);
    } while (*error == EAGAIN && !connection.stop.stop_requested());
    return daemon;
}

void RelayConnection(Connection &connection, const std::string &daemonPath, Log *log)
{
    int error = 0;
    const Descriptor daemon = ConnectInTurn(connection, daemonPath, &error);
    if (error != 0) {
        TurnAway(connection, error, log);
        return;
    }
    const int client = connection.socket.Get();
    Relay relay{{client, daemon.Get(), "client", {}},
                {daemon.Get(), client, "daemon", {}},
                {},
                {},
                connection.since,
                connection.stop,
                {}};
    {
        // What a client has sent before the end still goes to the daemon; just the daemon's reply is not waited for.
        const std::stop_callback wake(connection.stop, [&daemon] { shutdown(daemon.Get(), SHUT_RD); });
        Pass(&relay);
    }
    if (relay.capture.bytes.empty()) {
        return;
    }
    LogEntry entry = EntryFor(connection, relay.capture);
    entry.sent = relay.sent;
    const bool unfinished = *connection.stopped || relay.end.empty() || relay.end == kEndOfTheRelay;
    entry.outcome = unfinished ? "unfinished" : "relayed";
    entry.end = unfinished ? kEndOfTheRelay : relay.end;
    entry.taken = relay.lastReply - connection.since;
    log->Write(entry);
}

} // namespace standin
