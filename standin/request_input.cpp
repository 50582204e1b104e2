// The header tells how much is to come. Each of the two parts is read but for its last byte, since only then is it
// known whether that byte may be the last of the whole request.

#include "request_input.h"

#include <sys/socket.h>

#include <algorithm>

namespace standin {

// Waits for `count` more bytes, and leaves the last of them unread. Returns false when the client ends or fails first.
static bool ReadAllButLast(int socket, size_t count, std::vector<uint8_t> *bytes)
{
    const size_t before = bytes->size();
    bytes->resize(before + count);
    uint8_t *place = bytes->data() + before;
    ssize_t arrived = count > 1 ? recv(socket, place, count - 1, MSG_WAITALL) : 0;
    arrived = std::max<ssize_t>(arrived, 0);
    if (static_cast<size_t>(arrived) == count - 1) {
        arrived += std::max<ssize_t>(recv(socket, place + arrived, 1, MSG_PEEK), 0);
    }
    bytes->resize(before + static_cast<size_t>(arrived));
    return static_cast<size_t>(arrived) == count;
}

void ReadLastByte(int socket)
{
    uint8_t byte = 0;
    recv(socket, &byte, 1, 0);
}

bool ReadRequest(int socket, std::vector<uint8_t> *bytes)
{
    if (!ReadAllButLast(socket, kHeaderSize, bytes)) {
        return false;
    }
    const FrameHeader header = ReadHeader(*bytes);
    if (header.length == 0) {
        return true;
    }
    if (header.length > kRequestLengthMax) {
        return false;
    }
    ReadLastByte(socket);
    return ReadAllButLast(socket, header.length, bytes);
}

} // namespace standin
