// Header and payload are each read except for their last byte, which may be the request's last. The header must be
// whole before that is known.

#include "request_input.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace standin {

size_t RequestBytesDue(Bytes bytes)
{
    if (bytes.size() < kHeaderSize) {
        return kHeaderSize - bytes.size();
    }
    const uint32_t length = ReadHeader(bytes).length;
    return length > kRequestLengthMax ? 0 : kHeaderSize + length - bytes.size();
}

void ReadLastByte(int socket)
{
    uint8_t byte = 0;
    recv(socket, &byte, 1, 0);
}

// Reads the due bytes except for the last one, or peeks at that one. Returns what recv returns.
static ssize_t ReadSome(int socket, size_t due, std::vector<uint8_t> *bytes)
{
    uint8_t piece[16384];
    const size_t size = std::min(sizeof piece, std::max<size_t>(due - 1, 1));
    const ssize_t count = recv(socket, piece, size, due == 1 ? MSG_PEEK : 0);
    if (count > 0) {
        bytes->insert(bytes->end(), piece, piece + count);
    }
    return count;
}

RequestState ReadRequest(int socket, std::vector<uint8_t> *bytes)
{
    size_t due = 0;
    while ((due = RequestBytesDue(*bytes)) > 0) {
        const ssize_t count = ReadSome(socket, due, bytes);
        if (count <= 0) {
            return count < 0 && errno == EAGAIN ? RequestState::Coming : RequestState::Broken;
        }
        if (due == 1 && RequestBytesDue(*bytes) > 0) {
            ReadLastByte(socket); // of the header: a payload follows
        }
    }
    return ReadHeader(*bytes).length > kRequestLengthMax ? RequestState::Broken : RequestState::Whole;
}

} // namespace standin
