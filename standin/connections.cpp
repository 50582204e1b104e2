// The main thread waits for connections and for the signals that end the program; everything else happens in the
// connections' own threads.

#include "connections.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>

#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace standin {

static sigset_t EndSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return signals;
}

void BlockEndSignals()
{
    const sigset_t signals = EndSignals();
    sigprocmask(SIG_BLOCK, &signals, nullptr);
}

bool PeerHasGone(int socket)
{
    pollfd poller{socket, 0, 0};
    return poll(&poller, 1, 0) == 1 && (poller.revents & POLLHUP) != 0;
}

// A peer that has gone already needs no shutting down: its last bytes are read, and how it ended is still told.
static void ShutDown(int socket, std::atomic<bool> *stopped)
{
    if (!PeerHasGone(socket)) {
        *stopped = true;
        shutdown(socket, SHUT_RDWR);
    }
}

namespace {

// Threads are detached, or those that have ended would pile up until the program's end; here they are counted.
struct RunningThreads {
    std::mutex mutex;
    std::condition_variable changed;
    uint64_t count = 0;
};

struct Server {
    const std::function<void(Connection &)> &handle;
    std::stop_source stop;
    RunningThreads running;
    uint64_t accepted = 0;
};

} // namespace

static void WaitForThreads(RunningThreads *running)
{
    std::unique_lock lock(running->mutex);
    running->changed.wait(lock, [=] { return running->count == 0; });
}

// What goes wrong with one connection ends that connection only.
static void Complain(const char *what)
{
    fprintf(stderr, "plaxd-standin: %s\n", what);
}

static void HandleConnection(Server *server, Descriptor socket, uint64_t number)
{
    {
        std::atomic<bool> stopped = false;
        Connection connection{std::move(socket), number, std::chrono::system_clock::now(), server->stop.get_token(),
                              &stopped};
        const std::stop_callback wake(connection.stop, [&] { ShutDown(connection.socket.Get(), &stopped); });
        try {
            server->handle(connection);
        } catch (const std::exception &error) {
            Complain(error.what());
        }
    }
    const std::lock_guard lock(server->running.mutex);
    --server->running.count;
    server->running.changed.notify_all();
}

static void StartThread(Server *server, Descriptor socket)
{
    const std::lock_guard lock(server->running.mutex);
    std::thread(HandleConnection, server, std::move(socket), server->accepted + 1).detach();
    ++server->accepted; // not before the thread is there: each number belongs to a connection
    ++server->running.count;
}

// Out of descriptors or threads, the clients that wait go on waiting until others have ended.
static void PauseAccepting(const char *reason)
{
    Complain(reason);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

static void TryStartThread(Server *server, Descriptor socket)
{
    try {
        StartThread(server, std::move(socket));
    } catch (const std::system_error &error) {
        PauseAccepting(error.what());
    }
}

static void AcceptWaiting(Server *server, int listener)
{
    for (;;) {
        Descriptor socket(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
        if (socket.Get() >= 0) {
            TryStartThread(server, std::move(socket));
        } else if (errno == EAGAIN) {
            return;
        } else if (errno != ECONNABORTED && errno != EINTR) {
            PauseAccepting(SystemError("accept", errno).c_str());
            return;
        }
    }
}

void ServeConnections(const Listener &listener, const std::function<void(Connection &)> &handle)
{
    Server server{handle, {}, {}, 0};
    const sigset_t signals = EndSignals();
    const Descriptor signalInput(signalfd(-1, &signals, SFD_CLOEXEC));
    pollfd inputs[] = {{signalInput.Get(), POLLIN, 0}, {listener.socket.Get(), POLLIN, 0}};
    while ((inputs[0].revents & POLLIN) == 0) {
        if (poll(inputs, std::size(inputs), -1) < 0 && errno != EINTR) {
            throw std::runtime_error(SystemError("poll", errno));
        }
        AcceptWaiting(&server, listener.socket.Get());
    }
    server.stop.request_stop();
    WaitForThreads(&server.running);
}

} // namespace standin
