// Connecting to the daemon's Unix domain socket.

#include "connection.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

// Returns a descriptor of the socket above the standard ones, or -1 with errno set. If the caller has closed standard
// output, the socket gets its number, and a printed reply would be written back to the daemon.
static int MoveAboveStandardDescriptors(int socket)
{
    if (socket < 0 || socket > STDERR_FILENO) {
        return socket;
    }
    const int moved = fcntl(socket, F_DUPFD, STDERR_FILENO + 1);
    const int error = errno;
    close(socket);
    errno = error;
    return moved;
}

static sockaddr_un DaemonAddress(const char *socketPath)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, socketPath, std::min(strlen(socketPath), sizeof address.sun_path - 1));
    return address;
}

int OpenDaemonConnection(const char *socketPath, time_t receiveTimeoutSec)
{
    const int socket = MoveAboveStandardDescriptors(::socket(AF_UNIX, SOCK_STREAM, 0));
    if (socket < 0) {
        perror("socket error");
        return -1;
    }
    const timeval timeout{receiveTimeoutSec, 0};
    if (setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) < 0) {
        perror("set timeout error");
        return -1;
    }
    const sockaddr_un address = DaemonAddress(socketPath);
    if (connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0) {
        perror("connect error");
        return -1;
    }
    return socket;
}
