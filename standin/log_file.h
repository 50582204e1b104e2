// The log file. A thread of its own writes it, so that no client waits for a full disk or a pipe that nobody reads.
#ifndef PLAX_STANDIN_LOG_FILE_H
#define PLAX_STANDIN_LOG_FILE_H

#include "descriptor.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace standin {

// Opens a file to append to, or standard output for the path "-". Throws when it can't be opened.
Descriptor OpenLogFile(const std::string &path);

class LogFile {
public:
    LogFile(std::string path, Descriptor file);

    // Both return at once; a thread carries them out in order. The line has no newline.
    void Write(std::string line);
    void Reopen();

    // Called after the last line. Done() becomes readable when all lines are written.
    void Finish();
    [[nodiscard]] const Descriptor &Done() const
    {
        return done_;
    }

    // Lines that wait to be written, and those that could not be.
    uint64_t Waiting();
    uint64_t Lost();

private:
    void Run(const std::stop_token &stop);
    void Carry(std::unique_lock<std::mutex> *lock, const std::string &line);
    bool WriteLine(const std::string &line);
    bool WriteBytes(std::string_view bytes);
    void OpenAgain();

    std::string path_;
    Descriptor file_;
    Descriptor done_;
    bool midLine_ = false; // the file ends in a part of a line
    bool failing_ = false; // the last line was lost
    std::mutex mutex_;     // guards what follows
    std::condition_variable_any changed_;
    std::deque<std::string> lines_; // an empty one makes the thread open the file again
    uint64_t lost_ = 0;
    bool finished_ = false;
    std::jthread thread_; // last: it uses all the others
};

} // namespace standin

#endif
