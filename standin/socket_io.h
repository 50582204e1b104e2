// Creating, connecting and writing to Unix domain sockets.
#ifndef PLAX_STANDIN_SOCKET_IO_H
#define PLAX_STANDIN_SOCKET_IO_H

#include "descriptor.h"

#include <sys/un.h>

#include <string>
#include <string_view>

namespace standin {

// Throws if the path does not fit into an address: a client would truncate it.
sockaddr_un SocketAddress(const std::string &path);

// Creates a stream socket. Throws on failure.
Descriptor NewSocket(int flags);

// Connects to the daemon at `path` and returns 0, or the errno.
int Connect(const Descriptor &socket, const std::string &path);

// Sends all bytes unless the peer closes the connection. Returns the number of bytes sent.
size_t SendAll(int socket, std::string_view bytes);

} // namespace standin

#endif
