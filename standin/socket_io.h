// Making, connecting and writing of local sockets.
#ifndef PLAX_STANDIN_SOCKET_IO_H
#define PLAX_STANDIN_SOCKET_IO_H

#include "descriptor.h"

#include <sys/un.h>

#include <string>
#include <string_view>

namespace standin {

// Throws when the path does not fit an address: a client would cut it and end up elsewhere.
sockaddr_un SocketAddress(const std::string &path);

// A new local stream socket; throws when there is none to be had.
Descriptor NewSocket(int flags);

// Connects to the daemon at `path` and returns 0, or the errno.
int Connect(const Descriptor &socket, const std::string &path);

// Sends all bytes, unless the peer goes away; returns how many went out.
size_t SendAll(int socket, std::string_view bytes);

} // namespace standin

#endif
