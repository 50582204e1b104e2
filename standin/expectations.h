// The requests that are expected, written as the commands that send them, and how those that came differ.
#ifndef PLAX_STANDIN_EXPECTATIONS_H
#define PLAX_STANDIN_EXPECTATIONS_H

#include "log_formats.h"

#include <map>
#include <string>
#include <vector>

namespace standin {

// Stands for any number of requests.
inline constexpr const char *kAnyRequests = "...";

struct Expectations {
    std::string path;
    std::vector<std::string> commands; // or kAnyRequests
};

// Throws when anything in the file is wrong; the message then names every error, each on a line of its own with its
// place.
Expectations ReadExpectations(const std::string &path);

// The requests that came, in their order, as commands.
struct RequestList {
    std::vector<std::string> commands;
    std::map<uint64_t, size_t> places; // of those that have not ended, by connection
};

void NoteRequest(const LogEntry &entry, LogEvent event, RequestList *list);

// Whether the requests are the expected ones. If not, a unified diff on standard error shows the difference.
bool MeetExpectations(const Expectations &expectations, const std::vector<std::string> &requests);

} // namespace standin

#endif
