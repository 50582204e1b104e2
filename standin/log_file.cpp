// A line of which only a part could be written counts as lost. The next one then begins on a new line.

#include "log_file.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <utility>

namespace standin {

static Descriptor TryOpen(const std::string &path)
{
    return Descriptor(path == "-" ? fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)
                                  : open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666));
}

static std::string NameOf(const std::string &path)
{
    return path == "-" ? "standard output" : path;
}

Descriptor OpenLogFile(const std::string &path)
{
    Descriptor file = TryOpen(path);
    if (file.Get() < 0) {
        throw std::runtime_error(SystemError(NameOf(path), errno));
    }
    return file;
}

LogFile::LogFile(std::string path, Descriptor file)
    : path_(std::move(path)), file_(std::move(file)), done_(eventfd(0, EFD_CLOEXEC))
{
    if (done_.Get() < 0) {
        throw std::runtime_error(SystemError("eventfd", errno));
    }
    thread_ = std::jthread([this](const std::stop_token &stop) { Run(stop); });
}

void LogFile::Write(std::string line)
{
    const std::lock_guard lock(mutex_);
    lines_.push_back(std::move(line));
    changed_.notify_all();
}

void LogFile::Reopen()
{
    Write({});
}

void LogFile::Finish()
{
    const std::lock_guard lock(mutex_);
    finished_ = true;
    changed_.notify_all();
}

uint64_t LogFile::Waiting()
{
    const std::lock_guard lock(mutex_);
    return lines_.size();
}

uint64_t LogFile::Lost()
{
    const std::lock_guard lock(mutex_);
    return lost_;
}

void LogFile::Run(const std::stop_token &stop)
{
    std::unique_lock lock(mutex_);
    while (changed_.wait(lock, stop, [this] { return finished_ || !lines_.empty(); }) && !lines_.empty()) {
        const std::string line = std::move(lines_.front());
        Carry(&lock, line);
        lines_.pop_front();
    }
    eventfd_write(done_.Get(), 1);
}

// The line stays in the queue until it is written, so that Waiting() counts it.
void LogFile::Carry(std::unique_lock<std::mutex> *lock, const std::string &line)
{
    lock->unlock();
    bool written = true;
    if (line.empty()) {
        OpenAgain();
    } else {
        written = WriteLine(line);
    }
    lock->lock();
    lost_ += written ? 0 : 1;
}

bool LogFile::WriteLine(const std::string &line)
{
    const bool written = WriteBytes((midLine_ ? "\n" : "") + line + "\n");
    failing_ = !written;
    return written;
}

// Each call writes as much as the system accepts, so that a reader sees whole lines if possible.
bool LogFile::WriteBytes(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = write(file_.Get(), bytes.data(), bytes.size());
        if (count <= 0) {
            if (!failing_) {
                Report(SystemError(NameOf(path_), errno) + ": lines of the log are lost");
            }
            return false;
        }
        midLine_ = bytes[static_cast<size_t>(count) - 1] != '\n';
        bytes.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

void LogFile::OpenAgain()
{
    if (path_ == "-") {
        return;
    }
    Descriptor file = TryOpen(path_);
    if (file.Get() < 0) {
        Report(SystemError(path_, errno) + ": the log stays in the file that was open");
        return;
    }
    file_ = std::move(file);
    midLine_ = false;
}

} // namespace standin
