// A library to load before the C library, for tests of how the program sends: what they need to happen then happens
// every time and not by luck.
//
//   PLAX_HANGUP_BEFORE_SEND  the send, counted from 1, that is held back until the other side has said its last word
//   PLAX_SMALL_SEND_BUFFER   when set, the connection takes only a few KiB that the other side has not read

#include <cstdlib>

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

static void AwaitLastWord(int fd)
{
    pollfd peer{.fd = fd, .events = POLLRDHUP, .revents = 0};
    poll(&peer, 1, -1);
}

static void ShrinkSendBuffer(int fd)
{
    const int size = 1; // the system makes it the least that it allows
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

extern "C" ssize_t send(int fd, const void *buf, size_t n, int flags)
{
    static int count = 0;
    const char *held = getenv("PLAX_HANGUP_BEFORE_SEND");
    if (held != nullptr && ++count == atoi(held)) {
        AwaitLastWord(fd);
    }
    if (getenv("PLAX_SMALL_SEND_BUFFER") != nullptr) {
        ShrinkSendBuffer(fd);
    }
    return syscall(SYS_sendto, fd, buf, n, flags, nullptr, 0);
}
