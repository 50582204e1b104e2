// Bytes and half-closes are easy to pass on. A reset is not: the system resets a local connection if it is closed with
// unread bytes, and a relay that has read everything cannot cause one. So each direction peeks at the bytes in its
// queue, sends them, and removes all but the last one. That byte is removed when its sender closes in an orderly way,
// and stays unread if the connection must end with a reset.

#include "relay.h"

#include "request_input.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <vector>

namespace standin {

static constexpr const char *kEndOfTheRelay = "ended by the relay's end";

// At the program's end, a connection is given up after this time without progress.
static constexpr std::chrono::seconds kPatienceAtEnd{1};
// The time between attempts to connect to a daemon with a full backlog.
static constexpr std::chrono::milliseconds kConnectAgain{2};
// How often a connection passes bytes on before the others have their turn.
static constexpr int kStepsAtOnce = 16;

static SteadyTime Now()
{
    return std::chrono::steady_clock::now();
}

namespace {

// The request's bytes, for the decoder, and the number of bytes after them.
struct RequestCapture {
    std::vector<uint8_t> bytes;
    uint64_t bytesAfterEnd = 0;
};

struct Flow {
    int from;
    int to;
    const char *sender;  // the sender's name in the log
    std::string pending; // peeked at, but not sent yet
    size_t unread = 0;   // bytes in the queue of `from` that were peeked at, including `pending`
    bool ended = false;
};

enum class Step { Moved, Waiting, Ended, Reset };

class RelaySession : public Session {
public:
    RelaySession(Connection connection, const Watch &watch, const std::string &daemonPath, Log *log,
                 const TakenRequest &taken);

    Progress Advance() override;
    void Stop() override;

private:
    void Connect();
    void BeginPassing();
    Progress AwaitDaemon();
    Progress TurnAway();
    Progress Pass();
    void NoteDaemon(DaemonEnd how);

    Step AdvanceBoth();
    template <typename Observer>
    Step AdvanceOne(Flow *flow, const Observer &observe);
    void SeeRequest(std::string_view bytes);
    void SeeReply(std::string_view bytes);
    void AddToLog();
    void NoteEnd(const Flow &flow, const char *how);
    void NoteReset(const Flow &flow, Step step);
    Progress Finish();
    Progress Log(std::string_view outcome, std::string end);

    using Doing = Progress (RelaySession::*)();

    Connection connection_;
    Watch watch_;
    const std::string &daemonPath_;
    standin::Log *log_;
    Doing doing_ = &RelaySession::AwaitDaemon;
    Descriptor daemon_;
    int connectError_ = 0;
    Flow request_{};
    Flow reply_{};
    RequestCapture capture_;
    LogTicket ticket_;  // set when the request is whole or has ended
    std::string early_; // reply bytes that came before the request was whole
    SteadyTime lastReply_{};
    SteadyTime firstEnd_ = kNever;
    bool stopping_ = false; // the program is ending
    bool stopped_ = false;  // this program shut the client's connection down
    std::string end_;       // who ended first, and how; empty if nobody has
    DaemonEnd daemonFirst_ = DaemonEnd::AfterClient;
    std::string daemonEnd_; // how the daemon ended, if the client had gone too
};

} // namespace

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

// Peeks at bytes that were not peeked at before: the queue has a peek offset.
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

// If the receiver takes no more bytes, the sender's next send fails, as it would without a relay.
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

// Passes on an orderly end. The receiver also learns whether the sender still takes bytes.
static void PassOnEnd(Flow *flow)
{
    RemoveFromQueue(flow, 0);
    shutdown(flow->to, PeerHasGone(flow->from) ? SHUT_RDWR : SHUT_WR);
    flow->ended = true;
}

// ReadRequest has left the last byte of a whole request, or of the header of a too long one, in the queue.
RelaySession::RelaySession(Connection connection, const Watch &watch, const std::string &daemonPath, standin::Log *log,
                           const TakenRequest &taken)
    : connection_(std::move(connection)), watch_(watch), daemonPath_(daemonPath), log_(log), ticket_(taken.ticket)
{
    request_.pending.assign(taken.bytes.begin(), taken.bytes.end());
    if (!taken.bytes.empty()) {
        request_.unread = RequestBytesDue(taken.bytes) == 0 ? 1 : 0;
        SeeRequest(request_.pending);
    }
    Connect();
}

Progress RelaySession::Advance()
{
    return (this->*doing_)();
}

// What the client has sent still goes to the daemon, but the reply is not waited for.
void RelaySession::Stop()
{
    stopping_ = true;
    const int client = connection_.socket.Get();
    if (!PeerHasGone(client)) {
        stopped_ = true;
        shutdown(client, SHUT_RDWR);
    }
    if (doing_ == &RelaySession::Pass) {
        shutdown(daemon_.Get(), SHUT_RD);
        due_ = Now() + kPatienceAtEnd;
    }
}

// ---- Reaching the daemon ----

// If the daemon's backlog is full, the session waits, as a client would. No other client is accepted meanwhile, so that
// clients reach the daemon in the order in which they came: a script's next command must not overtake the one before.
void RelaySession::Connect()
{
    daemon_ = NewSocket(SOCK_NONBLOCK);
    connectError_ = standin::Connect(daemon_, daemonPath_);
    holdsOthers_ = connectError_ == EAGAIN;
    due_ = holdsOthers_ ? Now() + kConnectAgain : kNever;
    if (connectError_ == 0) {
        BeginPassing();
    } else if (!holdsOthers_) {
        doing_ = &RelaySession::TurnAway;
    }
}

void RelaySession::BeginPassing()
{
    const int client = connection_.socket.Get();
    request_.from = client;
    request_.to = daemon_.Get();
    request_.sender = "client";
    reply_ = {daemon_.Get(), client, "daemon", {}};
    for (const Flow *flow : {&request_, &reply_}) {
        const int offset = static_cast<int>(flow->unread);
        if (setsockopt(flow->from, SOL_SOCKET, SO_PEEK_OFF, &offset, sizeof offset) < 0) {
            throw std::runtime_error(SystemError("setsockopt", errno));
        }
    }
    doing_ = &RelaySession::Pass;
    watch_.Add(daemon_.Get());
}

Progress RelaySession::AwaitDaemon()
{
    if (Now() < due_ && !stopping_) {
        return Progress::Waiting;
    }
    Connect();
    if (connectError_ == EAGAIN && stopping_) {
        holdsOthers_ = false;
        due_ = kNever;
        doing_ = &RelaySession::TurnAway;
    }
    if (stopping_ && doing_ == &RelaySession::Pass) {
        Stop();
    }
    return doing_ == &RelaySession::AwaitDaemon ? Progress::Waiting : Progress::More;
}

// The client has already connected, so only a reset can tell it that there is no daemon.
Progress RelaySession::TurnAway()
{
    if (ReadRequest(connection_.socket.Get(), &capture_.bytes) == RequestState::Coming) {
        return Progress::Waiting;
    }
    if (capture_.bytes.empty()) {
        return Progress::Done;
    }
    AddToLog();
    return Log("unreachable", SystemError("no daemon", connectError_));
}

// ---- Passing on ----

void RelaySession::SeeRequest(std::string_view bytes)
{
    Capture(&capture_, bytes);
    if (RequestBytesDue(capture_.bytes) == 0) {
        AddToLog();
    }
}

void RelaySession::SeeReply(std::string_view bytes)
{
    lastReply_ = Now();
    if (ticket_ == nullptr) {
        early_ += bytes;
        return;
    }
    log_->AddSent(ticket_, bytes);
    if (IsWhole(ticket_->entry.sent, ticket_->entry.replyClass)) {
        log_->Release(ticket_);
    }
}

template <typename Observer>
Step RelaySession::AdvanceOne(Flow *flow, const Observer &observe)
{
    if (flow->ended) {
        return Step::Waiting;
    }
    if (flow->pending.empty()) {
        const Step step = Look(flow);
        if (step == Step::Ended) {
            NoteEnd(*flow, " closed");
            NoteDaemon(flow == &reply_ ? DaemonEnd::Closed : DaemonEnd::AfterClient);
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

Step RelaySession::AdvanceBoth()
{
    const Step request = AdvanceOne(&request_, [this](std::string_view bytes) { SeeRequest(bytes); });
    const Step reply = AdvanceOne(&reply_, [this](std::string_view bytes) { SeeReply(bytes); });
    NoteReset(request_, request);
    NoteReset(reply_, reply);
    if (request == Step::Reset || reply == Step::Reset) {
        return Step::Reset;
    }
    return request == Step::Moved || reply == Step::Moved ? Step::Moved : Step::Waiting;
}

void RelaySession::NoteReset(const Flow &flow, Step step)
{
    if (step == Step::Reset) {
        NoteEnd(flow, " reset");
        NoteDaemon(&flow == &reply_ ? DaemonEnd::Reset : DaemonEnd::AfterClient);
    }
}

// Notes only the first end. If the client has also gone by the time that the daemon's end is noticed, the client's end
// counts as the first: a daemon usually closes because its client is done. While the program is ending, the daemon's
// end is the relay's own shutdown, so a client that is still connected was cut short by the relay.
void RelaySession::NoteEnd(const Flow &flow, const char *how)
{
    if (!end_.empty()) {
        return;
    }
    firstEnd_ = std::min(firstEnd_, Now());
    const bool byDaemon = &flow == &reply_;
    const std::string end = byDaemon && stopping_ ? kEndOfTheRelay : std::string(flow.sender) + how;
    (byDaemon && PeerHasGone(request_.from) ? daemonEnd_ : end_) = end;
    if (ticket_ != nullptr) {
        log_->Release(ticket_);
    }
}

// A client that has only shut down its sending side still waits for the reply.
void RelaySession::NoteDaemon(DaemonEnd how)
{
    if (how != DaemonEnd::AfterClient && !PeerHasGone(request_.from)) {
        daemonFirst_ = how;
    }
}

Progress RelaySession::Pass()
{
    for (int i = 0; i < kStepsAtOnce; ++i) {
        if (request_.ended && reply_.ended) {
            return Finish();
        }
        const Step step = AdvanceBoth();
        if (step == Step::Reset) {
            return Finish();
        }
        if (step == Step::Waiting) {
            return stopping_ && due_ <= Now() ? Finish() : Progress::Waiting;
        }
        due_ = stopping_ ? Now() + kPatienceAtEnd : kNever;
    }
    return Progress::More;
}

// ---- The log ----

void RelaySession::AddToLog()
{
    if (ticket_ == nullptr) {
        ticket_ = log_->Add(connection_.since, connection_.number, capture_.bytes);
    }
    if (!early_.empty()) {
        log_->AddSent(ticket_, std::exchange(early_, {}));
    }
    if (ticket_->entry.replyClass == ReplyClass::None) {
        log_->Release(ticket_);
    }
}

Progress RelaySession::Finish()
{
    if (capture_.bytes.empty()) {
        return Progress::Done;
    }
    AddToLog();
    const std::string &end = end_.empty() ? daemonEnd_ : end_;
    const bool unfinished = stopped_ || end.empty() || end == kEndOfTheRelay;
    return unfinished ? Log("unfinished", kEndOfTheRelay) : Log("relayed", end);
}

Progress RelaySession::Log(std::string_view outcome, std::string end)
{
    LogEntry &entry = ticket_->entry;
    if (capture_.bytesAfterEnd > 0 && entry.request.length <= kRequestLengthMax) {
        entry.request.violations.push_back(BytesAfterEnd(capture_.bytesAfterEnd));
    }
    entry.outcome = outcome;
    entry.daemonEnd = daemonFirst_;
    entry.end = std::move(end);
    const bool replied = entry.sent.count > 0 && outcome != "unfinished";
    const SteadyTime over = replied ? lastReply_ : std::min(firstEnd_, Now());
    entry.taken = over - connection_.start;
    log_->End(ticket_);
    return Progress::Done;
}

std::unique_ptr<Session> MakeRelaySession(Connection connection, const Watch &watch, const std::string &daemonPath,
                                          Log *log, const TakenRequest &taken)
{
    return std::make_unique<RelaySession>(std::move(connection), watch, daemonPath, log, taken);
}

} // namespace standin
