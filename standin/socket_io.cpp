// Clients truncate a path that is too long. The stand-in refuses it, so that its socket always has the path given.

#include "socket_io.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace standin {

sockaddr_un SocketAddress(const std::string &path)
{
    sockaddr_un address{};
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        throw std::runtime_error(path + ": a socket's path has 1 to " + std::to_string(sizeof address.sun_path - 1) +
                                 " bytes");
    }
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.data(), path.size());
    return address;
}

Descriptor NewSocket(int flags)
{
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
    if (socket.Get() < 0) {
        throw std::runtime_error(SystemError("socket", errno));
    }
    return socket;
}

int Connect(const Descriptor &socket, const std::string &path)
{
    const sockaddr_un address = SocketAddress(path);
    return connect(socket.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ? 0 : errno;
}

size_t SendAll(int socket, std::string_view bytes)
{
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t count = send(socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count < 0) {
            break;
        }
        sent += static_cast<size_t>(count);
    }
    return sent;
}

} // namespace standin
