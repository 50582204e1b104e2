// Getting one request off a connection.
#ifndef PLAX_STANDIN_REQUEST_INPUT_H
#define PLAX_STANDIN_REQUEST_INPUT_H

#include "decoder.h"

#include <vector>

namespace standin {

// Reads one request, but leaves its last byte unread: a connection that is closed with unread bytes is reset, which is
// what a client sees of a daemon that dies before it has read the request. Returns true when the request is whole and
// can be answered; `bytes` holds what came.
bool ReadRequest(int socket, std::vector<uint8_t> *bytes);

// Reads the byte that was left.
void ReadLastByte(int socket);

} // namespace standin

#endif
