// Replaces the tool's surroundings, and records its calls.

#include "harness.h"

#include "connection.h"
#include "platform_support.h"

#include <stdio_ext.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string_view>

static constexpr int kSocket = 1 << 20; // not an open descriptor: only the harness knows it

struct Run {
    bool active = false;
    const Surroundings *surroundings = nullptr;
    Traces traces;
    std::deque<std::string_view> answer; // the rest of it
    int standardOutput = -1;
    int outputFile = -1;
    std::vector<int> opened;
    std::vector<void *> allocations;
    jmp_buf end;
};

static Run &run = *new Run; // never destroyed, so its memory stays reachable and is not a leak

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void __real_free(void *memory);
[[noreturn]] void __real_abort();
int __real_open64(const char *path, int flags, ...);

void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t count, size_t size);
void __wrap_free(void *memory);
[[noreturn]] void __wrap_abort();
int __wrap_open64(const char *path, int flags, ...);
ssize_t __wrap_send(int socket, const void *bytes, size_t size, int flags);
ssize_t __wrap_recv(int socket, void *buffer, size_t size, int flags);
}

[[noreturn]] static void Fail(const std::string &what)
{
    fprintf(stderr, "FINDING: %s\n", what.c_str());
    __real_abort();
}

static std::string Shown(const nlohmann::json &value)
{
    static constexpr size_t kShownMax = 2000;
    return value.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace).substr(0, kShownMax);
}

void ExpectEqual(const std::string &what, const nlohmann::json &actual, const nlohmann::json &expected)
{
    if (actual != expected) {
        Fail(what + " is\n  " + Shown(actual) + ", expected\n  " + Shown(expected));
    }
}

static nlohmann::json AsJson(const Traces &traces)
{
    return {traces.aborted, traces.status,      traces.warnings, traces.standardOutput,  traces.outputFile,
            traces.request, traces.connections, traces.received, traces.writtenAtPauses, traces.unreleased};
}

void ExpectTraces(const Traces &actual, const Traces &expected)
{
    if (actual != expected) {
        ExpectEqual("the outcome of the run", AsJson(actual), AsJson(expected));
    }
}

// ---- The platform support library ----

void Warning(const char *format, ...)
{
    char *text = nullptr;
    va_list values;
    va_start(values, format);
    const int length = vasprintf(&text, format, values);
    va_end(values);
    run.traces.warnings.append(text, static_cast<size_t>(length));
    __real_free(text);
}

void Panic(const char *format, ...)
{
    Fail(std::string("Panic: ") + format);
}

char *UtilSafeStrdup0(const char *text)
{
    const size_t size = strlen(text) + 1;
    return static_cast<char *>(memcpy(__wrap_malloc(size), text, size));
}

std::string StatusText(QRT_ReturnStatus status)
{
    return "text of " + std::to_string(status);
}

const char *QRT_ReturnStatusToString(QRT_ReturnStatus status)
{
    static std::string text;
    text = StatusText(status);
    return text.c_str();
}

// ---- Memory and the end of the process ----

static void *Remember(void *memory)
{
    if (run.active) {
        run.allocations.push_back(memory);
    }
    return memory;
}

void *__wrap_malloc(size_t size)
{
    return Remember(__real_malloc(size));
}

void *__wrap_calloc(size_t count, size_t size)
{
    return Remember(__real_calloc(count, size));
}

void __wrap_free(void *memory)
{
    if (run.active && memory != nullptr && std::erase(run.allocations, memory) == 0) {
        Fail("memory was released that is not the tool's");
    }
    __real_free(memory);
}

void __wrap_abort()
{
    if (run.active) {
        longjmp(run.end, 1);
    }
    __real_abort();
}

// ---- The output file and the daemon ----

int __wrap_open64(const char *path, int flags, ...)
{
    if (!run.active) {
        return __real_open64(path, flags, 0600);
    }
    if (run.surroundings->openError != 0) {
        errno = run.surroundings->openError;
        return -1;
    }
    run.opened.push_back(dup(run.outputFile));
    return run.opened.back();
}

int OpenDaemonConnection(const char * /*socketPath*/, time_t /*receiveTimeoutSec*/)
{
    ++run.traces.connections;
    return run.surroundings->refusesConnection ? -1 : kSocket;
}

ssize_t __wrap_send(int /*socket*/, const void *bytes, size_t size, int /*flags*/)
{
    if (run.surroundings->hangsUp) {
        errno = EPIPE;
        return -1;
    }
    run.traces.request.append(static_cast<const char *>(bytes), size);
    return static_cast<ssize_t>(size);
}

static size_t FileSize(int file)
{
    return static_cast<size_t>(lseek(file, 0, SEEK_END));
}

// Takes as much of the answer's first piece as fits. Takes nothing from a pause.
static size_t TakeBytes(char *buffer, size_t size)
{
    std::string_view &piece = run.answer.front();
    const size_t count = std::min(size, piece.size());
    memcpy(buffer, piece.data(), count);
    piece.remove_prefix(count);
    if (piece.empty()) {
        run.answer.pop_front();
    }
    return count;
}

// A receive that waits for all its bytes waits through every pause.
ssize_t __wrap_recv(int /*socket*/, void *buffer, size_t size, int flags)
{
    run.traces.received = true;
    const bool waitsForAll = (flags & MSG_WAITALL) != 0;
    size_t count = 0;
    while (!run.answer.empty() && (waitsForAll ? count < size : count == 0)) {
        const bool pause = run.answer.front().empty();
        if (pause && (flags & MSG_DONTWAIT) != 0) {
            errno = EAGAIN;
            return -1;
        }
        if (pause && !waitsForAll) {
            run.traces.writtenAtPauses.push_back(FileSize(run.standardOutput) + FileSize(run.outputFile));
        }
        count += TakeBytes(static_cast<char *>(buffer) + count, size - count);
    }
    if (count == 0 && run.surroundings->endError != 0) {
        errno = run.surroundings->endError;
        return -1;
    }
    return static_cast<ssize_t>(count);
}

// ---- The run ----

static std::string TakeContent(int file)
{
    std::string content(FileSize(file), '\0');
    if (pread(file, content.data(), content.size(), 0) != static_cast<ssize_t>(content.size())) {
        Fail("an output could not be read");
    }
    close(file);
    return content;
}

static void SetUp(const Surroundings &surroundings)
{
    for (void *memory : run.allocations) {
        __real_free(memory);
    }
    run.allocations.clear();
    run.surroundings = &surroundings;
    run.traces = {};
    run.answer.assign(surroundings.answer.begin(), surroundings.answer.end());
    run.standardOutput = memfd_create("standard output", 0);
    run.outputFile = memfd_create("output file", 0);
    dup2(run.standardOutput, STDOUT_FILENO);
    if (surroundings.standardOutputClosed) {
        close(STDOUT_FILENO);
    }
}

static void TearDown()
{
    fflush(stdout);
    __fpurge(stdout);
    for (const int file : run.opened) {
        close(file);
    }
    run.opened.clear();
    run.traces.standardOutput = TakeContent(run.standardOutput);
    run.traces.outputFile = TakeContent(run.outputFile);
    run.traces.unreleased = run.allocations.size();
    // Later output must not reach the descriptor, which a test runner also uses.
    dup2(STDERR_FILENO, STDOUT_FILENO);
}

// A separate function, so that no variable that it changes is read after the jump.
static void RunToItsEnd(const std::function<QRT_ReturnStatus(int)> &act)
{
    run.active = true;
    if (setjmp(run.end) == 0) {
        run.traces.status = act(kSocket);
    } else {
        run.traces.aborted = true;
    }
    run.active = false;
}

Traces Perform(const Surroundings &surroundings, const std::function<QRT_ReturnStatus(int socket)> &act)
{
    SetUp(surroundings);
    RunToItsEnd(act);
    TearDown();
    return run.traces;
}
