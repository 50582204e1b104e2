// Comparing the requests that came with the expected ones, both written as commands.
#ifndef PLAX_STANDIN_EXPECTATIONS_H
#define PLAX_STANDIN_EXPECTATIONS_H

#include "log_formats.h"

#include <map>
#include <string>
#include <vector>

namespace standin {

// Matches any number of requests.
inline constexpr const char *kAnyRequests = "...";

struct Expectations {
    std::string path;
    std::vector<std::string> commands; // or kAnyRequests
};

// If the file has errors, throws with a message that lists all of them, one a line, each with its place.
Expectations ReadExpectations(const std::string &path);

// The requests that came, in their order, as commands.
struct RequestList {
    std::vector<std::string> commands;
    std::map<uint64_t, size_t> places; // of those that have not ended, by connection
};

void NoteRequest(const LogEntry &entry, LogEvent event, RequestList *list);

// Returns whether the requests are the expected ones. If not, prints a unified diff to standard error.
bool MeetExpectations(const Expectations &expectations, const std::vector<std::string> &requests);

} // namespace standin

#endif
