// Everything here runs in one thread. It hands the lines to the thread of the file.

#include "log.h"

#include <algorithm>
#include <utility>

namespace standin {

// How long a request's line may wait for the request's end.
static constexpr std::chrono::seconds kPatience{1};

static SteadyTime Now()
{
    return std::chrono::steady_clock::now();
}

Log::Log(const std::string &path, Descriptor file, LogFormat format) : format_(format), file_(path, std::move(file)) {}

void Log::Observe(Observer observer)
{
    observers_.push_back(std::move(observer));
}

void Log::AddWitness(Witness *witness)
{
    witnesses_.push_back(witness);
}

void Log::Start(std::string_view kind, std::string_view name)
{
    file_.Write(FormatStart(kind, name, format_));
}

LogTicket Log::Add(std::chrono::system_clock::time_point time, uint64_t connection, Bytes request)
{
    auto ticket = std::make_shared<LogRecord>();
    ticket->came = Now();
    LogEntry &entry = ticket->entry;
    entry.time = time;
    entry.connection = connection;
    entry.request = DecodeRequest(request);
    entry.replyClass = ReplyClassOf(entry.request);
    for (const Observer &observe : observers_) {
        observe(entry, LogEvent::Request);
    }
    for (Witness *witness : witnesses_) {
        witness->RequestCame(entry, {reinterpret_cast<const char *>(request.data()), request.size()});
    }
    if (TellsEveryRequest(format_)) {
        ticket->told = true;
        lines_.push_back({ticket, LogEvent::Request});
        WriteReady();
    } else {
        untold_.push_back(ticket);
    }
    return ticket;
}

void Log::AddSent(const LogTicket &ticket, std::string_view bytes)
{
    ticket->entry.sent.Add(bytes);
    for (Witness *witness : witnesses_) {
        witness->ReplySent(ticket->entry, bytes);
    }
}

void Log::Release(const LogTicket &ticket)
{
    if (ticket->released == kNever) {
        ticket->released = Now();
        lines_.push_back({ticket, LogEvent::End});
    }
}

void Log::End(const LogTicket &ticket)
{
    const LogEntry &entry = ticket->entry;
    ticket->ended = true;
    ++summary_.requests;
    summary_.broken += entry.request.violations.empty() ? 0U : 1U;
    summary_.warned += entry.request.warnings.empty() ? 0U : 1U;
    ++summary_.counts[CommandText(entry.request)][std::string(entry.outcome)];
    for (const Observer &observe : observers_) {
        observe(entry, LogEvent::End);
    }
    for (Witness *witness : witnesses_) {
        witness->Ended(entry);
    }
    Release(ticket);
    WriteReady();
}

void Log::Tell(const Line &line)
{
    if (std::string text = FormatEntry(line.ticket->entry, line.event, format_); !text.empty()) {
        file_.Write(std::move(text));
    }
    line.ticket->told = true;
}

// A request that still waits for its answer after kPatience gets a line which says that it has come. A released request
// already has a place among the lines.
void Log::TellHanging()
{
    for (; !untold_.empty(); untold_.pop_front()) {
        LogRecord &record = *untold_.front();
        const bool waits = !record.told && record.released == kNever;
        if (waits && record.came + kPatience > Now()) {
            return;
        }
        if (waits) {
            record.told = true;
            lines_.push_back({untold_.front(), LogEvent::Request});
        }
    }
}

// The request has not ended in time. Its place gets the line which says that it has come, unless there is one already.
// At its end the request gets another place.
void Log::GiveUp(const Line &line)
{
    line.ticket->released = kNever;
    if (!line.ticket->told) {
        Tell({line.ticket, LogEvent::Request});
    }
}

void Log::WriteReady()
{
    for (; !lines_.empty(); lines_.pop_front()) {
        const Line &line = lines_.front();
        if (line.event == LogEvent::Request || line.ticket->ended) {
            Tell(line);
        } else if (line.ticket->released + kPatience <= Now()) {
            GiveUp(line);
        } else {
            return;
        }
    }
}

void Log::Tick()
{
    TellHanging();
    WriteReady();
}

SteadyTime Log::Due() const
{
    const SteadyTime hanging = untold_.empty() ? kNever : untold_.front()->came + kPatience;
    const SteadyTime staying = lines_.empty() ? kNever : lines_.front().ticket->released + kPatience;
    return std::min(hanging, staying);
}

void Log::WriteSummary()
{
    file_.Write(FormatSummary(summary_, format_));
    file_.Finish();
}

} // namespace standin
