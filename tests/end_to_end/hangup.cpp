// A library to preload into the tool, for tests of sending: it makes rare events happen every time.
//
//   PLAX_HANGUP_BEFORE_SEND  the send, counted from 1, that waits until the peer has closed its sending side
//   PLAX_SMALL_SEND_BUFFER   if set, the connection holds only a few KiB that the peer has not read

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
    const int size = 1; // the system raises it to its minimum
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
