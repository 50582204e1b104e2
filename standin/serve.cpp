// One connection carries one request and at most one reply.

#include "serve.h"

#include "request_input.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace standin {

// The end of a connection that is closed with an unread byte.
static constexpr const char *kResetHere = "reset by the stand-in";

// A header with a meaningless status, and far fewer payload bytes than it announces.
static constexpr std::string_view kGarbage("\xde\xad\xbe\xef\x00\x0f\xf1\xce\x7f\x00\xff\x1b", 12);

// How much is sent or read before the other connections have their turn.
static constexpr size_t kBytesAtOnce = size_t{1024} * 1024;

static SteadyTime Now()
{
    return std::chrono::steady_clock::now();
}

namespace {

// Bytes that are sent after a pause.
struct Part {
    std::chrono::milliseconds pause;
    std::string_view bytes;
};

enum class Pause { Lasts, IsOver, IsCutShort };

class ServeSession : public Session {
public:
    ServeSession(Connection connection, const Answers &answers, Log *log)
        : connection_(std::move(connection)), answers_(answers), log_(log)
    {
    }

    Progress Advance() override;
    void Stop() override;

    // Answers a request that is already in the log.
    void Begin(LogTicket ticket, const ChosenAnswer &chosen);

private:
    Progress Read();
    Progress Delay();
    Progress Send();
    Progress AwaitEnd();

    Progress TakeRequest(bool whole);
    Progress Play();
    Progress SendPart(const Part &part);
    Progress Answered(bool whole);
    Progress Finish(std::string end);
    [[nodiscard]] std::string_view Outcome() const;
    Pause PauseFor(std::chrono::milliseconds time);
    void NoteTime();

    using Step = Progress (ServeSession::*)();

    Connection connection_;
    const Answers &answers_;
    Log *log_;
    Step step_ = &ServeSession::Read;
    std::vector<uint8_t> request_;
    LogTicket ticket_;
    std::shared_ptr<AnswerBook> book_; // owns the answer, also after a reload
    const Answer *answer_ = nullptr;
    bool unmatched_ = false; // the answers file has entries for the command, but none fits
    std::string header_;
    std::vector<Part> parts_;
    size_t part_ = 0;       // index of the one being sent
    size_t partSent_ = 0;   // bytes of it already sent
    bool paused_ = false;   // its pause is over
    bool timed_ = false;    // the time that the request took is known
    bool stopping_ = false; // the program is ending
    bool stopped_ = false;  // this program shut the connection down
    uint64_t extraBytes_ = 0;
};

} // namespace

static std::string FrameBytes(uint32_t status, uint32_t length)
{
    std::string bytes;
    for (const uint32_t number : {status, length}) {
        for (const uint32_t shift : {24U, 16U, 8U, 0U}) {
            bytes += static_cast<char>(number >> shift & 0xffU);
        }
    }
    return bytes;
}

// The header of a framed reply; the fault cut-header leaves only its beginning.
static std::string HeaderBytes(const Answer &answer)
{
    const bool announcesMore = answer.fault == Fault::AnnounceMore;
    const size_t length = announcesMore ? answer.faultBytes : PayloadSize(answer);
    std::string header = FrameBytes(answer.status, static_cast<uint32_t>(length));
    if (answer.fault == Fault::CutHeader) {
        header.resize(answer.faultBytes);
    }
    return header;
}

static void AddPieces(const Answer &answer, std::vector<Part> *parts)
{
    for (const Piece &piece : answer.pieces) {
        parts->push_back({piece.pause, piece.bytes});
    }
}

// Everything that is sent for the answer. `header` owns the bytes that are not the answer's own.
static std::vector<Part> PartsOf(const Answer &answer, ReplyClass replyClass, std::string *header)
{
    std::vector<Part> parts;
    const bool garbage = answer.fault == Fault::Garbage;
    if (garbage && answer.pieces.empty()) {
        parts.push_back({{}, kGarbage});
    } else if (garbage || replyClass == ReplyClass::Streamed) {
        AddPieces(answer, &parts);
    } else if (replyClass != ReplyClass::None) {
        *header = HeaderBytes(answer);
        parts.push_back({{}, *header});
        if (answer.fault != Fault::CutHeader) {
            AddPieces(answer, &parts);
        }
    }
    return parts;
}

static bool ClosesAtOnce(Fault fault)
{
    return fault == Fault::CloseWithoutReading || fault == Fault::CloseWithoutAnswering;
}

Progress ServeSession::Advance()
{
    return (this->*step_)();
}

// If the client has already gone, its last bytes are still read and the log tells how it ended.
void ServeSession::Stop()
{
    stopping_ = true;
    if (!PeerHasGone(connection_.socket.Get())) {
        stopped_ = true;
        shutdown(connection_.socket.Get(), SHUT_RDWR);
    }
}

Progress ServeSession::Read()
{
    const RequestState state = ReadRequest(connection_.socket.Get(), &request_);
    if (state == RequestState::Coming) {
        return Progress::Waiting;
    }
    if (request_.empty()) {
        return Progress::Done; // the client only checked that a daemon is there
    }
    return TakeRequest(state == RequestState::Whole);
}

void ServeSession::Begin(LogTicket ticket, const ChosenAnswer &chosen)
{
    ticket_ = std::move(ticket);
    book_ = answers_.book;
    answer_ = chosen.answer;
    unmatched_ = chosen.source == AnswerSource::Unmatched;
    ticket_->entry.fault = NameOf(answer_->fault);
    step_ = &ServeSession::Delay;
}

Progress ServeSession::TakeRequest(bool whole)
{
    ticket_ = log_->Add(connection_.since, connection_.number, request_);
    LogEntry &logged = ticket_->entry;
    if (whole) {
        Begin(ticket_, ChooseAnswer(answers_.book.get(), logged.request));
        return Delay();
    }
    logged.outcome = "unanswered";
    if (logged.request.length > kRequestLengthMax) {
        return Finish(kResetHere);
    }
    step_ = &ServeSession::AwaitEnd; // the client may have ended only its sending side
    return AwaitEnd();
}

Pause ServeSession::PauseFor(std::chrono::milliseconds time)
{
    if (time.count() == 0) {
        return Pause::IsOver;
    }
    if (stopping_ || PeerHasGone(connection_.socket.Get())) {
        due_ = kNever;
        return Pause::IsCutShort;
    }
    due_ = due_ == kNever ? Now() + time : due_;
    if (Now() < due_) {
        return Pause::Lasts;
    }
    due_ = kNever;
    return Pause::IsOver;
}

Progress ServeSession::Delay()
{
    const Pause pause = PauseFor(answer_->delay);
    if (pause == Pause::Lasts) {
        return Progress::Waiting;
    }
    const bool over = pause == Pause::IsOver;
    if (!over || answer_->fault != Fault::CloseWithoutReading) {
        ReadLastByte(connection_.socket.Get());
    }
    return over ? Play() : Answered(false);
}

// For an answer that was given completely.
std::string_view ServeSession::Outcome() const
{
    if (answer_->fault != Fault::None) {
        return "fault";
    }
    return unmatched_ ? "unmatched" : "answered";
}

Progress ServeSession::Play()
{
    LogEntry &entry = ticket_->entry;
    const Fault fault = answer_->fault;
    entry.outcome = Outcome();
    if (ClosesAtOnce(fault)) {
        return Finish(fault == Fault::CloseWithoutReading ? kResetHere : "closed by the stand-in");
    }
    if (fault == Fault::StaySilent) {
        step_ = &ServeSession::AwaitEnd;
        return AwaitEnd();
    }
    parts_ = PartsOf(*answer_, entry.replyClass, &header_);
    step_ = &ServeSession::Send;
    return Send();
}

Progress ServeSession::Send()
{
    while (part_ < parts_.size()) {
        const Part &part = parts_[part_];
        const Pause pause = paused_ ? Pause::IsOver : PauseFor(part.pause);
        if (pause != Pause::IsOver) {
            return pause == Pause::Lasts ? Progress::Waiting : Answered(false);
        }
        paused_ = true;
        if (partSent_ < part.bytes.size()) {
            return SendPart(part);
        }
        ++part_;
        partSent_ = 0;
        paused_ = false;
    }
    return Answered(true);
}

Progress ServeSession::SendPart(const Part &part)
{
    const std::string_view bytes = part.bytes.substr(partSent_, kBytesAtOnce);
    const ssize_t count = send(connection_.socket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count < 0) {
        return errno == EAGAIN ? Progress::Waiting : Answered(false);
    }
    partSent_ += static_cast<size_t>(count);
    log_->AddSent(ticket_, bytes.substr(0, static_cast<size_t>(count)));
    return Progress::More;
}

// A client that expects no reply may leave during a delay; its request still counts as answered.
Progress ServeSession::Answered(bool whole)
{
    LogEntry &entry = ticket_->entry;
    const bool wanted = entry.replyClass != ReplyClass::None || answer_->fault != Fault::None;
    entry.outcome = !whole && wanted ? "unfinished" : Outcome();
    NoteTime();
    log_->Release(ticket_);
    shutdown(connection_.socket.Get(), SHUT_WR);
    step_ = &ServeSession::AwaitEnd;
    return AwaitEnd();
}

// Reads until the client ends the connection.
Progress ServeSession::AwaitEnd()
{
    char bytes[4096];
    ssize_t count = 0;
    for (size_t read = 0; read < kBytesAtOnce; read += static_cast<size_t>(count)) {
        count = recv(connection_.socket.Get(), bytes, sizeof bytes, 0);
        if (count < 0 && errno == EAGAIN) {
            return Progress::Waiting;
        }
        if (count <= 0) {
            return Finish(stopped_ ? "ended by the stand-in's end" : count == 0 ? "client closed" : "client reset");
        }
        extraBytes_ += static_cast<uint64_t>(count);
    }
    return Progress::More;
}

// The time until the answer was given, or the connection ended without one. Only the first call has an effect.
void ServeSession::NoteTime()
{
    if (!std::exchange(timed_, true)) {
        ticket_->entry.taken = Now() - connection_.start;
    }
}

Progress ServeSession::Finish(std::string end)
{
    LogEntry &entry = ticket_->entry;
    NoteTime();
    entry.end = std::move(end);
    if (extraBytes_ > 0 && answer_ != nullptr) {
        entry.request.violations.push_back(BytesAfterEnd(extraBytes_));
    }
    log_->End(ticket_);
    return Progress::Done;
}

std::unique_ptr<Session> MakeServeSession(Connection connection, const Answers &answers, Log *log)
{
    return std::make_unique<ServeSession>(std::move(connection), answers, log);
}

std::unique_ptr<Session> MakeAnswerSession(Connection connection, const Answers &answers, Log *log, LogTicket ticket,
                                           const ChosenAnswer &chosen)
{
    auto session = std::make_unique<ServeSession>(std::move(connection), answers, log);
    session->Begin(std::move(ticket), chosen);
    return session;
}

} // namespace standin
