// The alignment of commands and requests with the fewest differences decides which requests each "..." matches. These
// requests are replaced by "...", so that diff shows only what differs.

#include "expectations.h"

#include "descriptor.h"
#include "request_command.h"
#include "script_process.h"
#include "shell_words.h"

#include <spawn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <utility>

namespace standin {

// ---- The file ----

static std::string ReadCommand(const std::vector<std::string> &words, std::string *error)
{
    if (!error->empty()) {
        return {};
    }
    return words.front() == kAnyRequests && words.size() == 1 ? kAnyRequests : TidyCommand(words, error);
}

Expectations ReadExpectations(const std::string &path)
{
    std::string bytes;
    if (const int error = ReadFile(path, &bytes); error != 0) {
        throw std::runtime_error(SystemError(path, error));
    }
    Expectations expectations{path, {}};
    std::string errors;
    for (ShellText text{bytes}; !text.rest.empty();) {
        const std::string place = path + ":" + std::to_string(text.line) + ": ";
        std::string error;
        const std::vector<std::string> words = TakeCommand(&text, &error);
        if (!words.empty()) {
            expectations.commands.push_back(ReadCommand(words, &error));
        }
        if (!error.empty()) {
            errors.append(errors.empty() ? "" : "\n").append(place).append(error);
        }
    }
    if (!errors.empty()) {
        throw std::runtime_error(errors);
    }
    return expectations;
}

// ---- The requests ----

// The command is known only at the request's end, as bytes after the request break the protocol.
void NoteRequest(const LogEntry &entry, LogEvent event, RequestList *list)
{
    if (event == LogEvent::Request) {
        list->places[entry.connection] = list->commands.size();
        list->commands.emplace_back();
    } else {
        const auto place = list->places.find(entry.connection);
        list->commands[place->second] = RequestCommand(entry.request);
        list->places.erase(place);
    }
}

// ---- The comparison ----

namespace {

enum class Step : uint8_t { Both, Command, Request };

// steps[c * width + r] is the last step of an alignment of the first c commands with the first r requests that has the
// fewest differences.
struct Ways {
    size_t width;
    std::vector<Step> steps;
};

} // namespace

// Between alignments with equally many differences, the one in which kAnyRequests matches fewer requests is better.
static constexpr uint64_t kLeftToAny = 1;
static constexpr uint64_t kDifference = 1ULL << 32U;

// On entry, `costs` are those of the best alignments without the command; on return, those with it.
static void AddRow(const std::string &command, const std::vector<std::string> &requests, std::vector<uint64_t> *costs,
                   std::vector<Step> *steps)
{
    const bool any = command == kAnyRequests;
    const uint64_t commandCost = any ? 0 : kDifference;
    uint64_t diagonal = costs->front();
    costs->front() += commandCost;
    steps->push_back(Step::Command);
    for (size_t i = 0; i < requests.size(); ++i) {
        const uint64_t byCommand = (*costs)[i + 1] + commandCost;
        const uint64_t byRequest = (*costs)[i] + (any ? kLeftToAny : kDifference);
        const bool same = command == requests[i];
        steps->push_back(same ? Step::Both : byCommand < byRequest ? Step::Command : Step::Request);
        const uint64_t best = same ? diagonal : std::min(byCommand, byRequest);
        diagonal = std::exchange((*costs)[i + 1], best);
    }
}

static Ways FindWays(const std::vector<std::string> &commands, const std::vector<std::string> &requests)
{
    Ways ways{requests.size() + 1, std::vector<Step>(requests.size() + 1, Step::Request)};
    std::vector<uint64_t> costs;
    for (size_t i = 0; i < ways.width; ++i) {
        costs.push_back(i * kDifference);
    }
    for (const std::string &command : commands) {
        AddRow(command, requests, &costs, &ways.steps);
    }
    return ways;
}

// The requests, with kAnyRequests in place of those that it matches.
static std::vector<std::string> Fold(const std::vector<std::string> &commands, const std::vector<std::string> &requests)
{
    const Ways ways = FindWays(commands, requests);
    std::vector<std::string> folded;
    size_t command = commands.size();
    size_t request = requests.size();
    while (command > 0 || request > 0) {
        const Step step = ways.steps[command * ways.width + request];
        const bool any = command > 0 && commands[command - 1] == kAnyRequests;
        if (any ? step == Step::Command : step != Step::Command) {
            folded.push_back(any ? kAnyRequests : requests[request - 1]);
        }
        command -= step == Step::Request ? 0 : 1;
        request -= step == Step::Command ? 0 : 1;
    }
    std::reverse(folded.begin(), folded.end());
    return folded;
}

// ---- The difference ----

// Returns the path by which a child process can open the file, which is in memory.
static std::string MakeFile(const std::vector<std::string> &commands, Descriptor *file)
{
    std::string text;
    for (const std::string &command : commands) {
        text.append(command).append("\n");
    }
    *file = Descriptor(memfd_create("commands", 0));
    for (std::string_view rest = text; !rest.empty();) {
        const ssize_t count = write(file->Get(), rest.data(), rest.size());
        if (count < 0) {
            throw std::runtime_error(SystemError("memfd", errno));
        }
        rest.remove_prefix(static_cast<size_t>(count));
    }
    return "/proc/self/fd/" + std::to_string(file->Get());
}

// Returns whether the program ran and showed a difference.
static bool RunDiff(std::vector<std::string> words)
{
    std::vector<char *> arguments(words.size() + 1); // a null follows the last
    std::transform(words.begin(), words.end(), arguments.begin(), [](std::string &word) { return word.data(); });
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
    pid_t process = 0;
    const int error = posix_spawnp(&process, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return error == 0 && AwaitProcess(process) == 1;
}

bool MeetExpectations(const Expectations &expectations, const std::vector<std::string> &requests)
{
    const std::vector<std::string> folded = Fold(expectations.commands, requests);
    if (folded == expectations.commands) {
        return true;
    }
    Descriptor expected;
    Descriptor came;
    const std::string expectedPath = MakeFile(expectations.commands, &expected);
    const std::string camePath = MakeFile(folded, &came);
    if (!RunDiff({"diff", "--unified", "--text", "--label", expectations.path, "--label", "requests", expectedPath,
                  camePath})) {
        Report("the requests are not those of " + expectations.path + ", and diff does not show how");
    }
    return false;
}

} // namespace standin
