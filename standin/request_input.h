// Reading one request from a non-blocking connection.
#ifndef PLAX_STANDIN_REQUEST_INPUT_H
#define PLAX_STANDIN_REQUEST_INPUT_H

#include "decoder.h"

#include <vector>

namespace standin {

enum class RequestState {
    Coming, // there is more to come
    Whole,  // it can be answered
    Broken, // the client ended before, or what it announces is too long to be waited for
};

// The number of bytes that are missing from a request of which these have come.
size_t RequestBytesDue(Bytes bytes);

// Reads what has come, but leaves the request's last byte unread: a connection that is closed with unread bytes is
// reset, which is what a client sees of a daemon that dies before it has read the request. `bytes` holds what has come,
// with that last byte.
RequestState ReadRequest(int socket, std::vector<uint8_t> *bytes);

// Reads the byte that was left.
void ReadLastByte(int socket);

} // namespace standin

#endif
