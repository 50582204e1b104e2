// Both ends of a connection, for tests that act as the daemon.
#ifndef PLAX_TESTS_UNIT_SOCKET_PAIR_H
#define PLAX_TESTS_UNIT_SOCKET_PAIR_H

#include <gtest/gtest.h>

#include <string_view>

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

struct SocketPair {
    int tool = -1; // its receives time out after a hundredth of a second
    int daemon = -1;

    SocketPair()
    {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        tool = ends[0];
        daemon = ends[1];
        const timeval hundredth{.tv_sec = 0, .tv_usec = 10000};
        EXPECT_EQ(setsockopt(tool, SOL_SOCKET, SO_RCVTIMEO, &hundredth, sizeof hundredth), 0);
    }

    SocketPair(const SocketPair &) = delete;
    SocketPair &operator=(const SocketPair &) = delete;

    ~SocketPair()
    {
        close(tool);
        CloseDaemon();
    }

    void Answer(std::string_view bytes) const
    {
        EXPECT_EQ(write(daemon, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    void CloseDaemon()
    {
        if (daemon >= 0) {
            close(daemon);
            daemon = -1;
        }
    }
};

#endif
