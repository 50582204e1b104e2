// Makes the calls that its arguments name, in order, and prints the result and the errno of each to standard error. It
// prints with dprintf, like the preloaded library, because dprintf has no injected failures.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string_view>

// A connected pair with fixed descriptor numbers, whatever the caller has open.
static constexpr int kReceiver = 100;
static constexpr int kSender = 101;
static const char kData[] = "0123456789";
static constexpr size_t kDataLength = sizeof kData - 1;
static char received[kDataLength];

static long TellPointer(void *memory)
{
    const long result = memory != nullptr ? 1 : 0;
    free(memory);
    return result;
}

static long CallVfprintf(const char *format, ...)
{
    va_list values;
    va_start(values, format);
    const int length = vfprintf(stdout, format, values);
    va_end(values);
    return length;
}

static long CallConnect()
{
    const sockaddr_un address{AF_UNIX, "/nonexistent"};
    return connect(kReceiver, reinterpret_cast<const sockaddr *>(&address), sizeof address);
}

static long CallSetsockopt()
{
    const timeval timeout{7, 8};
    return setsockopt(kReceiver, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
}

static long CallPerror()
{
    errno = ENOENT;
    perror("words");
    return 0;
}

struct Call {
    std::string_view name;
    long (*make)();
};

static const Call kCalls[] = {
    {"malloc", [] { return TellPointer(malloc(10)); }},
    {"calloc", [] { return TellPointer(calloc(1, 10)); }},
    {"socket", []() -> long { return std::min(socket(AF_UNIX, SOCK_STREAM, 0), 0); }},
    {"setsockopt", CallSetsockopt},
    {"connect", CallConnect},
    {"fcntl", []() -> long { return fcntl(kReceiver, F_DUPFD, 200); }},
    {"close", []() -> long { return close(kSender); }},
    {"sigaction", []() -> long { return sigaction(SIGPIPE, nullptr, nullptr); }},
    {"send", []() -> long { return send(kSender, kData, kDataLength, MSG_NOSIGNAL); }},
    {"recv", []() -> long { return recv(kReceiver, received, kDataLength, MSG_DONTWAIT); }},
    {"write", []() -> long { return write(STDOUT_FILENO, kData, kDataLength); }},
    {"open", []() -> long { return std::min(open("/dev/null", O_WRONLY | O_CREAT, 0640), 0); }},
    {"printf", []() -> long { return printf("%d words", 3); }},
    {"vfprintf", [] { return CallVfprintf("%d values", 3); }},
    {"putc", []() -> long { return putc('x', stdout); }},
    {"setvbuf", []() -> long { return setvbuf(stdout, nullptr, _IOFBF, 100); }},
    {"perror", CallPerror},
};

// Closes the descriptors that the system chose without a recorded call.
static bool MoveTo(int wanted, int descriptor)
{
    const auto number = static_cast<unsigned>(descriptor);
    return dup2(descriptor, wanted) == wanted && close_range(number, number, 0) == 0;
}

static bool ConnectPair()
{
    int pair[2];
    return socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0 && MoveTo(kReceiver, pair[0]) && MoveTo(kSender, pair[1]);
}

static long Make(std::string_view name)
{
    for (const Call &call : kCalls) {
        if (call.name == name) {
            errno = 0;
            return call.make();
        }
    }
    abort();
}

int main(int argumentCount, char **arguments)
{
    if (!ConnectPair()) {
        return EXIT_FAILURE;
    }
    for (int i = 1; i < argumentCount; ++i) {
        const long result = Make(arguments[i]);
        const int error = errno;
        dprintf(STDERR_FILENO, "%s %ld %d\n", arguments[i], result, error);
    }
    return EXIT_SUCCESS;
}
