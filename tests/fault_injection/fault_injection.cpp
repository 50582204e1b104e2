// A library to preload into the tool, which makes chosen calls of the C library fail and records all of them.
//
//   PLAX_FAULT_PLAN   the failures, as "function:call:error:errno" or "function:call:short:length", joined by commas:
//                     "recv:2:error:104" makes the second recv fail with errno 104, "send:1:short:3" lets the first
//                     send take 3 bytes. An invalid entry ends the program with exit status 99.
//   PLAX_FAULT_LOG    the descriptor for the record: a line for each call with the arguments that matter, and after a
//                     planned failure " = -1 errno" or " = length".
//   PLAX_FAULT_AWAIT  if set, each recv first waits until the peer has closed its sending side, so that the calls of a
//                     run do not depend on timing.
//
// The loader puts these functions before the C library's, so they get the calls that the tool and the platform support
// library make. The C library's calls of its own functions do not come here, with two exceptions. Its allocations do:
// they are counted separately, as "libc-malloc", and recorded only when they are made to fail. And it flushes standard
// output at exit: for "exit-flush" in the plan, the kernel refuses every later write to standard output.

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <stdio_ext.h>
#include <sys/auxv.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

static constexpr int kPlanFailureCode = 99;
static constexpr size_t kFaultsMax = 8;
static constexpr int kAwaitTimeoutMs = 10'000;

enum class Function {
    Malloc,
    Calloc,
    LibcMalloc,
    Free,
    Socket,
    Setsockopt,
    Connect,
    Fcntl,
    Close,
    Sigaction,
    Send,
    Recv,
    Write,
    Open,
    Printf,
    Vfprintf,
    Putc,
    Setvbuf,
    Perror,
    Abort,
    ExitFlush,
};

// Several symbols share one name here: which one the tool calls depends on its compiler and on fortification.
static constexpr const char *kFunctionNames[] = {
    "malloc", "calloc",   "libc-malloc", "free",    "socket", "setsockopt", "connect",
    "fcntl",  "close",    "sigaction",   "send",    "recv",   "write",      "open",
    "printf", "vfprintf", "putc",        "setvbuf", "perror", "abort",      "exit-flush"};
static constexpr size_t kFunctionCount = std::size(kFunctionNames);
static_assert(static_cast<size_t>(Function::ExitFlush) + 1 == kFunctionCount);

struct Fault {
    size_t function;
    unsigned call; // 1 is the first call of the function
    bool isShort;
    int value; // the errno, or the length of a short call
};

static Fault plan[kFaultsMax];
static size_t planCount;
static unsigned callCounts[kFunctionCount];
static int logDescriptor = -1;
static bool awaitsPeer;
static bool isActive; // false while the loader is running

[[noreturn]] static void RefusePlan(const char *entry)
{
    dprintf(STDERR_FILENO, "fault injection: cannot carry out \"%s\"\n", entry);
    _exit(kPlanFailureCode);
}

static bool ReadFault(const char *entry, int *length, Fault *fault)
{
    char name[16];
    char kind[8];
    if (sscanf(entry, "%15[a-z-]:%u:%7[a-z]:%d%n", name, &fault->call, kind, &fault->value, length) != 4) {
        return false;
    }
    const auto *found = std::find_if(std::begin(kFunctionNames), std::end(kFunctionNames),
                                     [&name](const char *known) { return strcmp(known, name) == 0; });
    fault->function = static_cast<size_t>(found - std::begin(kFunctionNames));
    fault->isShort = strcmp(kind, "short") == 0;
    return fault->function < kFunctionCount && (fault->isShort || strcmp(kind, "error") == 0);
}

static void ReadPlan(const char *text)
{
    while (*text != '\0') {
        int length = 0;
        if (planCount == kFaultsMax || !ReadFault(text, &length, &plan[planCount])) {
            RefusePlan(text);
        }
        ++planCount;
        text += length;
        if (*text != '\0' && *text++ != ',') {
            RefusePlan(text);
        }
    }
}

static const Fault *FindFault(Function function)
{
    const auto index = static_cast<size_t>(function);
    const unsigned call = ++callCounts[index];
    for (size_t i = 0; i < planCount; ++i) {
        if (plan[i].function == index && plan[i].call == call) {
            return &plan[i];
        }
    }
    return nullptr;
}

static void Record(Function function, const char *arguments, const Fault *fault)
{
    char result[32] = "";
    if (fault != nullptr) {
        snprintf(result, sizeof result, fault->isShort ? " = %d" : " = -1 %d", fault->value);
    }
    char line[192];
    const char *name = kFunctionNames[static_cast<size_t>(function)];
    const int length = snprintf(line, sizeof line, "%s%s%s\n", name, arguments, result);
    // A system call, as the C library's output functions can allocate.
    syscall(SYS_write, logDescriptor, line, static_cast<size_t>(length));
}

// Counts and records a call whose arguments `format` shows. Returns the failure planned for it, or null. Changes
// neither errno nor any buffer of the C library.
[[gnu::format(printf, 2, 3)]] static const Fault *Enter(Function function, const char *format, ...)
{
    const int error = errno;
    const Fault *fault = FindFault(function);
    char arguments[128];
    va_list values;
    va_start(values, format);
    vsnprintf(arguments, sizeof arguments, format, values);
    va_end(values);
    Record(function, arguments, fault);
    errno = error;
    return fault;
}

static int Fail(const Fault &fault)
{
    errno = fault.value;
    return -1;
}

// Returns whether the call must fail, and sets errno if so.
static bool IsFailure(const Fault *fault)
{
    return fault != nullptr && !fault->isShort && Fail(*fault) < 0;
}

// Returns how many of `length` bytes the call may transfer. A short call succeeds, so errno is meaningless after it: it
// gets a value that exposes a caller that uses it anyway.
static size_t Granted(const Fault *fault, size_t length)
{
    if (fault == nullptr) {
        return length;
    }
    errno = ENOTRECOVERABLE;
    return std::min(length, static_cast<size_t>(fault->value));
}

template <typename Signature>
static Signature *Next(const char *symbol)
{
    return reinterpret_cast<Signature *>(dlsym(RTLD_NEXT, symbol));
}

static const void *ObjectOf(const void *address)
{
    Dl_info info{};
    return dladdr(address, &info) != 0 ? info.dli_fbase : nullptr;
}

static bool IsLoader(const void *caller)
{
    return reinterpret_cast<unsigned long>(ObjectOf(caller)) == getauxval(AT_BASE);
}

static bool IsCLibrary(const void *caller)
{
    return ObjectOf(caller) == ObjectOf(dlsym(RTLD_NEXT, "abort"));
}

// Returns the failure planned for an allocation by `caller`, or null.
static const Fault *EnterAllocation(Function function, const void *caller)
{
    if (!isActive || IsLoader(caller)) {
        return nullptr;
    }
    if (!IsCLibrary(caller)) {
        return Enter(function, "%s", "");
    }
    const Fault *fault = FindFault(Function::LibcMalloc);
    if (fault != nullptr) {
        Record(Function::LibcMalloc, "", fault);
    }
    return fault;
}

static void AwaitPeer(int socket)
{
    pollfd peer{socket, POLLRDHUP, 0};
    if (awaitsPeer && poll(&peer, 1, kAwaitTimeoutMs) != 1) {
        RefusePlan("the peer's last word never came");
    }
}

// Makes the kernel fail every write to standard output with `error`.
static void RefuseOutput(int error)
{
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_write, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, STDOUT_FILENO, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog program{std::size(filter), filter};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
        RefusePlan("exit-flush");
    }
}

[[gnu::constructor]] static void Begin()
{
    const char *log = getenv("PLAX_FAULT_LOG");
    logDescriptor = log != nullptr ? atoi(log) : -1;
    awaitsPeer = getenv("PLAX_FAULT_AWAIT") != nullptr;
    const char *text = getenv("PLAX_FAULT_PLAN");
    ReadPlan(text != nullptr ? text : "");
    isActive = true;
}

// Runs after the program's exit handlers and before the C library flushes its buffers.
[[gnu::destructor]] static void End()
{
    const size_t pending = __fpending(stdout);
    const Fault *fault = pending != 0 ? Enter(Function::ExitFlush, " %zu", pending) : nullptr;
    if (fault != nullptr) {
        RefuseOutput(fault->value);
    }
    isActive = false;
}

extern "C" {
void *InjectMalloc(size_t size) asm("malloc");
void *InjectCalloc(size_t count, size_t size) asm("calloc");
void InjectFree(void *memory) asm("free");
int InjectSocket(int domain, int type, int protocol) asm("socket");
int InjectSetsockopt(int socket, int level, int option, const void *value, socklen_t length) asm("setsockopt");
int InjectConnect(int socket, const sockaddr *address, socklen_t length) asm("connect");
int InjectFcntl(int descriptor, int command, ...) asm("fcntl");
int InjectFcntl64(int descriptor, int command, ...) asm("fcntl64");
int InjectClose(int descriptor) asm("close");
int InjectSigaction(int signal, const struct sigaction *action, struct sigaction *old) asm("sigaction");
ssize_t InjectSend(int socket, const void *data, size_t length, int flags) asm("send");
ssize_t InjectRecv(int socket, void *data, size_t length, int flags) asm("recv");
ssize_t InjectWrite(int descriptor, const void *data, size_t length) asm("write");
int InjectOpen(const char *path, int flags, ...) asm("open");
int InjectOpen64(const char *path, int flags, ...) asm("open64");
int InjectPrintf(const char *format, ...) asm("printf");
int InjectPrintfChk(int flag, const char *format, ...) asm("__printf_chk");
int InjectVfprintf(FILE *stream, const char *format, va_list values) asm("vfprintf");
int InjectVfprintfChk(FILE *stream, int flag, const char *format, va_list values) asm("__vfprintf_chk");
int InjectPutc(int character, FILE *stream) asm("putc");
int InjectFputc(int character, FILE *stream) asm("fputc");
int InjectPutchar(int character) asm("putchar");
int InjectSetvbuf(FILE *stream, char *buffer, int mode, size_t size) asm("setvbuf");
void InjectPerror(const char *text) asm("perror");
[[noreturn]] void InjectAbort() asm("abort");
}

void *InjectMalloc(size_t size)
{
    const Fault *fault = EnterAllocation(Function::Malloc, __builtin_return_address(0));
    return IsFailure(fault) ? nullptr : Next<decltype(InjectMalloc)>("malloc")(size);
}

void *InjectCalloc(size_t count, size_t size)
{
    const Fault *fault = EnterAllocation(Function::Calloc, __builtin_return_address(0));
    return IsFailure(fault) ? nullptr : Next<decltype(InjectCalloc)>("calloc")(count, size);
}

void InjectFree(void *memory)
{
    const void *caller = __builtin_return_address(0);
    if (isActive && !IsLoader(caller) && !IsCLibrary(caller)) {
        Enter(Function::Free, "%s", "");
    }
    Next<decltype(InjectFree)>("free")(memory);
}

int InjectSocket(int domain, int type, int protocol)
{
    const Fault *fault = Enter(Function::Socket, " %d %d %d", domain, type, protocol);
    return IsFailure(fault) ? -1 : Next<decltype(InjectSocket)>("socket")(domain, type, protocol);
}

int InjectSetsockopt(int socket, int level, int option, const void *value, socklen_t length)
{
    timeval timeout{};
    memcpy(&timeout, value, std::min(sizeof timeout, static_cast<size_t>(length)));
    const Fault *fault = Enter(Function::Setsockopt, " %d %d %lld %lld", level, option,
                               static_cast<long long>(timeout.tv_sec), static_cast<long long>(timeout.tv_usec));
    return IsFailure(fault) ? -1 : Next<decltype(InjectSetsockopt)>("setsockopt")(socket, level, option, value, length);
}

int InjectConnect(int socket, const sockaddr *address, socklen_t length)
{
    const Fault *fault = Enter(Function::Connect, " %u", length);
    return IsFailure(fault) ? -1 : Next<decltype(InjectConnect)>("connect")(socket, address, length);
}

static int ControlFile(int descriptor, int command, long value)
{
    const Fault *fault = Enter(Function::Fcntl, " %d %d %ld", descriptor, command, value);
    return IsFailure(fault) ? -1 : Next<int(int, int, ...)>("fcntl")(descriptor, command, value);
}

int InjectFcntl(int descriptor, int command, ...)
{
    va_list values;
    va_start(values, command);
    const auto value = static_cast<long>(va_arg(values, int));
    va_end(values);
    return ControlFile(descriptor, command, value);
}

int InjectFcntl64(int descriptor, int command, ...)
{
    va_list values;
    va_start(values, command);
    const auto value = static_cast<long>(va_arg(values, int));
    va_end(values);
    return ControlFile(descriptor, command, value);
}

// The system closes the descriptor even if it reports a failure.
int InjectClose(int descriptor)
{
    const Fault *fault = Enter(Function::Close, " %d", descriptor);
    const int result = Next<decltype(InjectClose)>("close")(descriptor);
    return IsFailure(fault) ? -1 : result;
}

int InjectSigaction(int signal, const struct sigaction *action, struct sigaction *old)
{
    const Fault *fault = Enter(Function::Sigaction, " %d", signal);
    return IsFailure(fault) ? -1 : Next<decltype(InjectSigaction)>("sigaction")(signal, action, old);
}

ssize_t InjectSend(int socket, const void *data, size_t length, int flags)
{
    const Fault *fault = Enter(Function::Send, " %zu %d", length, flags);
    return IsFailure(fault) ? -1 : Next<decltype(InjectSend)>("send")(socket, data, Granted(fault, length), flags);
}

ssize_t InjectRecv(int socket, void *data, size_t length, int flags)
{
    const Fault *fault = Enter(Function::Recv, " %zu %d", length, flags);
    if (IsFailure(fault)) {
        return -1;
    }
    AwaitPeer(socket);
    return Next<decltype(InjectRecv)>("recv")(socket, data, Granted(fault, length), flags);
}

ssize_t InjectWrite(int descriptor, const void *data, size_t length)
{
    const Fault *fault = Enter(Function::Write, " %zu", length);
    return IsFailure(fault) ? -1 : Next<decltype(InjectWrite)>("write")(descriptor, data, Granted(fault, length));
}

static int OpenFile(const char *path, int flags, mode_t mode)
{
    const Fault *fault = Enter(Function::Open, " %d %o", flags, mode);
    return IsFailure(fault) ? -1 : Next<int(const char *, int, ...)>("open64")(path, flags, mode);
}

int InjectOpen(const char *path, int flags, ...)
{
    va_list values;
    va_start(values, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(values, mode_t) : 0;
    va_end(values);
    return OpenFile(path, flags, mode);
}

int InjectOpen64(const char *path, int flags, ...)
{
    va_list values;
    va_start(values, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(values, mode_t) : 0;
    va_end(values);
    return OpenFile(path, flags, mode);
}

static int PrintValues(const char *format, va_list values)
{
    const Fault *fault = Enter(Function::Printf, "%s", "");
    return IsFailure(fault) ? -1 : Next<decltype(InjectVfprintf)>("vfprintf")(stdout, format, values);
}

int InjectPrintf(const char *format, ...)
{
    va_list values;
    va_start(values, format);
    const int length = PrintValues(format, values);
    va_end(values);
    return length;
}

int InjectPrintfChk(int /*flag*/, const char *format, ...)
{
    va_list values;
    va_start(values, format);
    const int length = PrintValues(format, values);
    va_end(values);
    return length;
}

int InjectVfprintf(FILE *stream, const char *format, va_list values)
{
    const Fault *fault = Enter(Function::Vfprintf, " %d", fileno(stream));
    return IsFailure(fault) ? -1 : Next<decltype(InjectVfprintf)>("vfprintf")(stream, format, values);
}

int InjectVfprintfChk(FILE *stream, int /*flag*/, const char *format, va_list values)
{
    return InjectVfprintf(stream, format, values);
}

int InjectFputc(int character, FILE *stream)
{
    const Fault *fault = Enter(Function::Putc, " %d", fileno(stream));
    return IsFailure(fault) ? EOF : Next<decltype(InjectFputc)>("fputc")(character, stream);
}

int InjectPutc(int character, FILE *stream)
{
    return InjectFputc(character, stream);
}

int InjectPutchar(int character)
{
    return InjectFputc(character, stdout);
}

int InjectSetvbuf(FILE *stream, char *buffer, int mode, size_t size)
{
    const Fault *fault = Enter(Function::Setvbuf, " %d", fileno(stream));
    return IsFailure(fault) ? EOF : Next<decltype(InjectSetvbuf)>("setvbuf")(stream, buffer, mode, size);
}

void InjectPerror(const char *text)
{
    if (!IsFailure(Enter(Function::Perror, "%s", ""))) {
        Next<decltype(InjectPerror)>("perror")(text);
    }
}

void InjectAbort()
{
    Enter(Function::Abort, "%s", "");
    Next<decltype(InjectAbort)>("abort")();
    __builtin_unreachable();
}
