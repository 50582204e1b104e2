// A library to load before the C library: it holds back one of the program's sends until the other side has hung up,
// so that a test meets a broken connection every time and not by luck. Which send, counted from 1, stands in the
// environment variable PLAX_HANGUP_BEFORE_SEND.

#include <cstdlib>

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" ssize_t send(int fd, const void *buf, size_t n, int flags)
{
    static int count = 0;
    const char *held = getenv("PLAX_HANGUP_BEFORE_SEND");
    if (held != nullptr && ++count == atoi(held)) {
        pollfd peer{.fd = fd, .events = 0, .revents = 0};
        poll(&peer, 1, -1);
    }
    return syscall(SYS_sendto, fd, buf, n, flags, nullptr, 0);
}
