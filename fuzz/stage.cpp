// The stage: what takes the place of the tool's surroundings, and the record of what the tool did to them.

#include "stage.h"

#include "connection.h"
#include "platform_support.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// More pieces in flight than this would fill the socket with their bookkeeping alone; those behind them travel as one.
static constexpr size_t kPiecesInFlightMax = 16;
static constexpr int kSendBufferSize = 1 << 20;

struct Stage {
    bool running = false;
    const Surroundings *surroundings = nullptr;
    Traces traces;
    int toolSocket = -1;
    int daemonSocket = -1;
    size_t nextPiece = 0;
    size_t unread = 0; // bytes of the answer that the tool could receive at once
    bool daemonClosed = false;
    int standardOutput = -1; // the file that stands for it, on a descriptor that the tool does not use
    int outputFile = -1;
    std::vector<int> opened;
    std::vector<void *> allocations;
    jmp_buf end;
};

static Stage stage;

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void __real_free(void *memory);
[[noreturn]] void __real_abort();
int __real_open(const char *path, int flags, ...);
int __real_open64(const char *path, int flags, ...);
ssize_t __real_recv(int socket, void *buffer, size_t size, int flags);

void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t count, size_t size);
void __wrap_free(void *memory);
[[noreturn]] void __wrap_abort();
int __wrap_open(const char *path, int flags, ...);
int __wrap_open64(const char *path, int flags, ...);
ssize_t __wrap_recv(int socket, void *buffer, size_t size, int flags);
}

void Fail(std::string_view what)
{
    fprintf(stderr, "FINDING: %.*s\n", static_cast<int>(what.size()), what.data());
    __real_abort();
}

static std::string Quoted(std::string_view text)
{
    static constexpr size_t kShownMax = 2000;
    std::string quoted;
    for (const char character : text.substr(0, kShownMax)) {
        char code[sizeof "\\xff"];
        snprintf(code, sizeof code, "\\x%02hhx", static_cast<uint8_t>(character));
        quoted += character >= ' ' && character <= '~' ? std::string(1, character) : code;
    }
    return '"' + quoted + "\" (" + std::to_string(text.size()) + " bytes)";
}

void ExpectEqual(std::string_view what, std::string_view actual, std::string_view expected)
{
    if (actual != expected) {
        Fail(std::string(what) + " is\n  " + Quoted(actual) + ", expected\n  " + Quoted(expected));
    }
}

void ExpectEqual(std::string_view what, unsigned long long actual, unsigned long long expected)
{
    if (actual != expected) {
        Fail(std::string(what) + " is " + std::to_string(actual) + ", expected " + std::to_string(expected));
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
    if (length < 0) {
        Fail("a message could not be formatted");
    }
    stage.traces.warnings += text;
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

QRT_ReturnStatus WrappedError(int error)
{
    return 0x2bad0000 + static_cast<uint32_t>(error);
}

// ---- Memory and the end of the process ----

static void *Remember(void *memory)
{
    if (stage.running) {
        stage.allocations.push_back(memory);
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
    if (stage.running && memory != nullptr) {
        const auto found = std::find(stage.allocations.begin(), stage.allocations.end(), memory);
        if (found == stage.allocations.end()) {
            Fail("memory was released that is not the tool's");
        }
        stage.allocations.erase(found);
    }
    __real_free(memory);
}

void __wrap_abort()
{
    if (stage.running) {
        longjmp(stage.end, 1);
    }
    __real_abort();
}

// ---- The output file ----

static int OpenOutputFile(const char *path, int flags, mode_t mode)
{
    stage.traces.openedPaths.emplace_back(path);
    ExpectEqual("how the output file is opened", static_cast<unsigned>(flags & ~O_LARGEFILE),
                O_WRONLY | O_CREAT | O_TRUNC);
    ExpectEqual("the mode of a new output file", mode, 0666);
    if (stage.surroundings->openError != 0) {
        errno = stage.surroundings->openError;
        return -1;
    }
    stage.opened.push_back(dup(stage.outputFile));
    return stage.opened.back();
}

static mode_t ModeArgument(int flags, va_list values)
{
    return (flags & O_CREAT) != 0 ? va_arg(values, mode_t) : 0;
}

int __wrap_open(const char *path, int flags, ...)
{
    va_list values;
    va_start(values, flags);
    const mode_t mode = ModeArgument(flags, values);
    va_end(values);
    return stage.running ? OpenOutputFile(path, flags, mode) : __real_open(path, flags, mode);
}

int __wrap_open64(const char *path, int flags, ...)
{
    va_list values;
    va_start(values, flags);
    const mode_t mode = ModeArgument(flags, values);
    va_end(values);
    return stage.running ? OpenOutputFile(path, flags, mode) : __real_open64(path, flags, mode);
}

static size_t FileSize(int file)
{
    return static_cast<size_t>(lseek(file, 0, SEEK_END));
}

static std::string TakeContent(int file)
{
    std::string content(FileSize(file), '\0');
    if (pread(file, content.data(), content.size(), 0) != static_cast<ssize_t>(content.size()) ||
        ftruncate(file, 0) != 0) {
        Fail("an output could not be read");
    }
    return content;
}

// ---- The daemon ----

int OpenDaemonConnection(const char *socketPath, time_t receiveTimeoutSec)
{
    stage.traces.socketPaths.emplace_back(socketPath);
    stage.traces.receiveTimeouts.push_back(receiveTimeoutSec);
    return stage.surroundings->daemon.refusesConnection ? -1 : stage.toolSocket;
}

static void SendToTool(const std::string &bytes)
{
    if (bytes.empty()) {
        return;
    }
    if (send(stage.daemonSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size())) {
        Fail("the daemon could not answer");
    }
    stage.unread += bytes.size();
}

static bool IsAnswerOver()
{
    return stage.nextPiece == stage.surroundings->daemon.answer.size();
}

// For a receive that waits until it has `size` bytes, whatever pauses lie between.
static void AnswerInFull(size_t size)
{
    size_t pieces = 0;
    std::string rest;
    while (stage.unread + rest.size() < size && !IsAnswerOver()) {
        const Piece &piece = stage.surroundings->daemon.answer[stage.nextPiece++];
        if (pieces < kPiecesInFlightMax) {
            SendToTool(piece);
            ++pieces;
        } else {
            rest += piece;
        }
    }
    SendToTool(rest);
}

// For a receive that takes what is there.
static void AnswerNextPiece(bool mayWait)
{
    const std::vector<Piece> &answer = stage.surroundings->daemon.answer;
    while (stage.unread == 0 && !IsAnswerOver()) {
        const Piece &piece = answer[stage.nextPiece];
        if (piece.empty() && !mayWait) {
            return;
        }
        if (piece.empty()) {
            stage.traces.writtenAtPauses.push_back(FileSize(stage.standardOutput) + FileSize(stage.outputFile));
        }
        SendToTool(piece);
        ++stage.nextPiece;
    }
}

static void EndAnswer()
{
    if (IsAnswerOver() && stage.surroundings->daemon.endError == 0 && !stage.daemonClosed) {
        shutdown(stage.daemonSocket, SHUT_WR);
        stage.daemonClosed = true;
    }
}

ssize_t __wrap_recv(int socket, void *buffer, size_t size, int flags)
{
    if (!stage.running || socket != stage.toolSocket) {
        return __real_recv(socket, buffer, size, flags);
    }
    ++stage.traces.receives;
    if ((flags & MSG_WAITALL) != 0) {
        AnswerInFull(size);
    } else {
        AnswerNextPiece((flags & MSG_DONTWAIT) == 0);
    }
    EndAnswer();
    if (stage.unread == 0 && !stage.daemonClosed) {
        errno = IsAnswerOver() ? stage.surroundings->daemon.endError : EAGAIN;
        return -1;
    }
    const ssize_t count = __real_recv(socket, buffer, size, flags | MSG_DONTWAIT);
    stage.unread -= count > 0 ? static_cast<size_t>(count) : 0;
    return count;
}

static std::string TakeRequest()
{
    std::string request;
    char buffer[4096];
    ssize_t count = 0;
    while ((count = __real_recv(stage.daemonSocket, buffer, sizeof buffer, MSG_DONTWAIT)) > 0) {
        request.append(buffer, static_cast<size_t>(count));
    }
    return request;
}

// ---- The run ----

static int MakeFile()
{
    const int file = memfd_create("plax-fuzz", MFD_CLOEXEC);
    if (file < 0) {
        Fail("no memory file");
    }
    return file;
}

// Appending, so that a file which has been emptied is filled from its beginning.
static void OpenFiles()
{
    stage.standardOutput = MakeFile();
    stage.outputFile = MakeFile();
    fcntl(stage.standardOutput, F_SETFL, O_APPEND);
    fcntl(stage.outputFile, F_SETFL, O_APPEND);
}

static void SetUp(const Surroundings &surroundings)
{
    if (stage.outputFile < 0) {
        OpenFiles();
    }
    stage.surroundings = &surroundings;
    stage.traces = {};
    stage.nextPiece = stage.unread = 0;
    stage.daemonClosed = false;
    dup2(stage.standardOutput, STDOUT_FILENO);
    int sockets[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) != 0 ||
        setsockopt(sockets[0], SOL_SOCKET, SO_SNDBUF, &kSendBufferSize, sizeof kSendBufferSize) != 0 ||
        setsockopt(sockets[1], SOL_SOCKET, SO_SNDBUF, &kSendBufferSize, sizeof kSendBufferSize) != 0) {
        Fail("no socket pair");
    }
    stage.toolSocket = sockets[0];
    stage.daemonSocket = sockets[1];
    if (surroundings.daemon.hangsUp) {
        close(stage.daemonSocket);
        stage.daemonSocket = -1;
    }
    if (surroundings.standardOutputClosed) {
        close(STDOUT_FILENO);
    }
}

static void TearDown()
{
    fflush(stdout);
    __fpurge(stdout);
    stage.traces.standardOutput = TakeContent(stage.standardOutput);
    stage.traces.outputFile = TakeContent(stage.outputFile);
    stage.traces.request = TakeRequest();
    stage.traces.unreleased = stage.allocations.size();
    for (void *memory : stage.allocations) {
        __real_free(memory);
    }
    stage.allocations.clear();
    for (const int file : stage.opened) {
        close(file);
    }
    stage.opened.clear();
    close(stage.toolSocket);
    close(stage.daemonSocket);
    // Nothing that comes later may land on the descriptor, and a test runner has its own use for it.
    dup2(STDERR_FILENO, STDOUT_FILENO);
}

// A function of its own, since nothing that changes within it is read after the jump.
static void RunToItsEnd(const std::function<QRT_ReturnStatus(int)> &act)
{
    stage.running = true;
    if (setjmp(stage.end) == 0) {
        stage.traces.status = act(stage.toolSocket);
    } else {
        stage.traces.aborted = true;
    }
    stage.running = false;
}

Traces Perform(const Surroundings &surroundings, const std::function<QRT_ReturnStatus(int socket)> &act)
{
    SetUp(surroundings);
    RunToItsEnd(act);
    TearDown();
    return stage.traces;
}
