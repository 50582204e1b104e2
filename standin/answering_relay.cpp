// The whole request decides whether the relay or the daemon answers, so the daemon is connected to only when all of it
// has come. Then a session of the stand-in or of the plain relay takes over.

#include "answering_relay.h"

#include "relay.h"
#include "request_input.h"

#include <exception>

namespace standin {

static SteadyTime Now()
{
    return std::chrono::steady_clock::now();
}

namespace {

class AnsweringRelaySession : public Session {
public:
    AnsweringRelaySession(Connection connection, const Watch &watch, const Answers &answers,
                          const std::string &daemonPath, Log *log)
        : connection_(std::move(connection)), watch_(watch), answers_(answers), daemonPath_(daemonPath), log_(log)
    {
    }

    Progress Advance() override;
    void Stop() override;

private:
    Progress Read();
    Progress Choose();
    Progress PassOn();
    Progress Follow(Progress progress);

    Connection connection_;
    Watch watch_;
    const Answers &answers_;
    const std::string &daemonPath_;
    Log *log_;
    std::vector<uint8_t> request_;
    LogTicket ticket_;
    std::unique_ptr<Session> next_; // takes over
    bool delayed_ = false;          // the request is passed on at due_
    bool stopping_ = false;         // the program is ending
    bool failed_ = false;           // the request could not be passed on
};

} // namespace

Progress AnsweringRelaySession::Advance()
{
    if (next_ != nullptr) {
        return Follow(next_->Advance());
    }
    if (failed_) {
        return Progress::Done;
    }
    if (!delayed_) {
        return Read();
    }
    return Now() < due_ ? Progress::Waiting : PassOn();
}

// What has come so far is still passed on or answered.
void AnsweringRelaySession::Stop()
{
    stopping_ = true;
    if (next_ == nullptr) {
        static_cast<void>(delayed_ ? PassOn() : Read());
    }
    if (next_ != nullptr) {
        next_->Stop();
        Follow(Progress::More);
    }
}

// This session waits for what next_ waits for.
Progress AnsweringRelaySession::Follow(Progress progress)
{
    due_ = next_->Due();
    holdsOthers_ = next_->HoldsOthers();
    return progress;
}

Progress AnsweringRelaySession::Read()
{
    const RequestState state = ReadRequest(connection_.socket.Get(), &request_);
    if (state == RequestState::Whole) {
        return Choose();
    }
    if (state == RequestState::Coming && !stopping_) {
        return Progress::Waiting;
    }
    return request_.empty() ? Progress::Done : PassOn();
}

Progress AnsweringRelaySession::Choose()
{
    ticket_ = log_->Add(connection_.since, connection_.number, request_);
    const ChosenAnswer chosen = ChooseAnswer(answers_.book.get(), ticket_->entry.request);
    if (chosen.source != AnswerSource::File) {
        return PassOn();
    }
    if (!chosen.answer->pass) {
        next_ = MakeAnswerSession(std::move(connection_), answers_, log_, ticket_, chosen);
        return Follow(next_->Advance());
    }
    if (chosen.answer->delay.count() == 0 || stopping_) {
        return PassOn();
    }
    if (ticket_->entry.replyClass == ReplyClass::None) {
        log_->Release(ticket_);
    }
    delayed_ = true;
    due_ = Now() + chosen.answer->delay;
    return Progress::Waiting;
}

// A request that is already in the log must end there even if no connection to the daemon can be made.
Progress AnsweringRelaySession::PassOn()
{
    due_ = kNever;
    try {
        next_ = MakeRelaySession(std::move(connection_), watch_, daemonPath_, log_, {request_, ticket_});
    } catch (const std::exception &error) {
        Report(error.what());
        if (ticket_ != nullptr) {
            ticket_->entry.outcome = "unreachable";
            ticket_->entry.end = std::string("no daemon: ") + error.what();
            log_->End(ticket_);
        }
        failed_ = true;
        return Progress::Done;
    }
    return Follow(next_->Advance());
}

std::unique_ptr<Session> MakeAnsweringRelaySession(Connection connection, const Watch &watch, const Answers &answers,
                                                   const std::string &daemonPath, Log *log)
{
    return std::make_unique<AnsweringRelaySession>(std::move(connection), watch, answers, daemonPath, log);
}

} // namespace standin
