// One connection carries one request and at most one reply.

#include "serve.h"

#include "request_input.h"

#include <sys/socket.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>

namespace standin {

// How a connection ends that is closed with a byte unread.
static constexpr const char *kResetHere = "reset by the stand-in";

// False when the program has been told to end.
static bool Pause(const Connection &connection, std::chrono::milliseconds time)
{
    std::mutex mutex;
    std::unique_lock lock(mutex);
    std::condition_variable_any never;
    return time.count() == 0 ||
           !never.wait_for(lock, connection.stop, time, [&] { return connection.stop.stop_requested(); });
}

static bool Send(const Connection &connection, std::string_view bytes, SentBytes *sent)
{
    const size_t count = SendAll(connection.socket.Get(), bytes);
    sent->Add(bytes.substr(0, count));
    return count == bytes.size();
}

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

static bool SendPieces(const Connection &connection, const Answer &answer, SentBytes *sent)
{
    return std::all_of(answer.pieces.begin(), answer.pieces.end(), [&](const Piece &piece) {
        return Pause(connection, piece.pause) && Send(connection, piece.bytes, sent);
    });
}

// A reply that makes no sense: a header with a status that nobody gives, and far fewer bytes than it announces.
static constexpr std::string_view kGarbage("\xde\xad\xbe\xef\x00\x0f\xf1\xce\x7f\x00\xff\x1b", 12);

// Sends what the answer has to send. False when the client, or the program, ended before all of it was out.
static bool SendAnswer(const Connection &connection, const Answer &answer, ReplyClass replyClass, SentBytes *sent)
{
    if (answer.fault == Fault::Garbage) {
        return answer.pieces.empty() ? Send(connection, kGarbage, sent) : SendPieces(connection, answer, sent);
    }
    if (replyClass == ReplyClass::None) {
        return true;
    }
    if (replyClass == ReplyClass::Streamed) {
        return SendPieces(connection, answer, sent);
    }
    const bool announcesMore = answer.fault == Fault::AnnounceMore;
    const size_t length = announcesMore ? answer.faultBytes : PayloadSize(answer);
    const std::string header = FrameBytes(answer.status, static_cast<uint32_t>(length));
    if (answer.fault == Fault::CutHeader) {
        return Send(connection, std::string_view(header).substr(0, answer.faultBytes), sent);
    }
    return Send(connection, header, sent) && SendPieces(connection, answer, sent);
}

// Reads until the client ends the connection, and returns how it did.
static std::string AwaitEnd(const Connection &connection, uint64_t *extraBytes)
{
    char bytes[4096];
    ssize_t count = 0;
    while ((count = recv(connection.socket.Get(), bytes, sizeof bytes, 0)) > 0) {
        *extraBytes += static_cast<uint64_t>(count);
    }
    if (*connection.stopped) {
        return "ended by the stand-in's end";
    }
    return count == 0 ? "client closed" : "client reset";
}

static bool ClosesAtOnce(Fault fault)
{
    return fault == Fault::CloseWithoutReading || fault == Fault::CloseWithoutAnswering;
}

// Sends what the answer has to send, and returns false when the client, or the program, ended before it was out.
static bool PlayAnswer(const Connection &connection, const Answer &answer, LogEntry *entry)
{
    const bool waited = Pause(connection, answer.delay);
    if (!waited || answer.fault != Fault::CloseWithoutReading) {
        ReadLastByte(connection.socket.Get());
    }
    if (!waited) {
        return false;
    }
    if (ClosesAtOnce(answer.fault) || answer.fault == Fault::StaySilent) {
        return true;
    }
    const bool whole = SendAnswer(connection, answer, entry->replyClass, &entry->sent);
    shutdown(connection.socket.Get(), SHUT_WR);
    return whole;
}

static void AnswerRequest(const Connection &connection, const Answer &answer, LogEntry *entry)
{
    const bool whole = PlayAnswer(connection, answer, entry);
    entry->fault = NameOf(answer.fault);
    entry->taken = std::chrono::system_clock::now() - entry->time;
    entry->outcome = !whole ? "unfinished" : answer.fault == Fault::None ? "answered" : "fault";
    if (whole && ClosesAtOnce(answer.fault)) {
        entry->end = answer.fault == Fault::CloseWithoutReading ? kResetHere : "closed by the stand-in";
        return;
    }
    uint64_t extraBytes = 0;
    entry->end = AwaitEnd(connection, &extraBytes);
    if (extraBytes > 0) {
        entry->request.violations.push_back(BytesAfterEnd(extraBytes));
    }
}

// A request that did not come whole. When it is the client who stopped, it has ended, or just its sending side.
static void LeaveUnanswered(const Connection &connection, LogEntry *entry)
{
    uint64_t none = 0;
    entry->outcome = "unanswered";
    entry->end = entry->request.length > kRequestLengthMax ? kResetHere : AwaitEnd(connection, &none);
}

void ServeConnection(Connection &connection, AnswerBook *book, Log *log)
{
    std::vector<uint8_t> bytes;
    const bool whole = ReadRequest(connection.socket.Get(), &bytes);
    if (bytes.empty()) {
        return; // somebody looked whether a daemon is there
    }
    LogEntry entry{connection.since, connection.number, DecodeRequest(bytes), ReplyClass::None, {}, {}, {}, {}, {}};
    entry.replyClass = ReplyClassOf(entry.request);
    if (whole) {
        AnswerRequest(connection, NextAnswer(book, entry.request), &entry);
    } else {
        LeaveUnanswered(connection, &entry);
    }
    log->Write(entry);
}

} // namespace standin
