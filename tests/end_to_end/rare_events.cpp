// A library to preload into the stand-in: it makes rare events happen every time.
//
//   PLAX_FAILING_ALLOCATION  the allocation that fails, counted from 1 at the first wait for events
//   PLAX_ENDLESS_CLIENTS     if set, there is always one more client to accept, which has left already, until the
//                            stand-in sends its first bytes

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string_view>

extern "C" void *__libc_malloc(size_t size);

static std::atomic<int> left; // allocations up to the one that fails; 0 or less: none fails

extern "C" int epoll_wait(int epfd, epoll_event *events, int maxevents, int timeout)
{
    static bool counting = false;
    const char *failing = getenv("PLAX_FAILING_ALLOCATION");
    if (failing != nullptr && !counting) {
        counting = true;
        left = atoi(failing);
    }
    return static_cast<int>(syscall(SYS_epoll_pwait, epfd, events, maxevents, timeout, nullptr, _NSIG / 8));
}

extern "C" void *malloc(size_t size)
{
    if (left > 0 && --left == 0) {
        static constexpr std::string_view kMessage = "no memory\n";
        syscall(SYS_write, STDERR_FILENO, kMessage.data(), kMessage.size());
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(size);
}

static std::atomic<bool> hasSent;

extern "C" ssize_t send(int fd, const void *buf, size_t n, int flags)
{
    hasSent = true;
    return syscall(SYS_sendto, fd, buf, n, flags, nullptr, 0);
}

extern "C" int accept4(int fd, sockaddr *addr, socklen_t *addr_len, int flags)
{
    const auto client = static_cast<int>(syscall(SYS_accept4, fd, addr, addr_len, flags));
    if (client < 0 && errno == EAGAIN && !hasSent && getenv("PLAX_ENDLESS_CLIENTS") != nullptr) {
        errno = ECONNABORTED;
    }
    return client;
}
