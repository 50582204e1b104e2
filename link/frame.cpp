// Frames to and from the daemon.

#include "frame.h"

#include "platform_support.h"
#include "safe_allocation.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

QRT_ReturnStatus ErrnoToStatus(int error)
{
    if (error == 0) {
        return kStatusSuccess;
    }
    const auto bits = static_cast<uint32_t>(error);
    return error > 0 ? kStatusSystemErrorBase + bits : kStatusSystemErrorBase - bits;
}

QRT_ReturnStatus SendCommand(int socket, CommandCode code, const void *payload, size_t length)
{
    const FrameHeader header{htonl(static_cast<uint32_t>(code)), htonl(static_cast<uint32_t>(length))};
    if (send(socket, &header, sizeof header, 0) < 0) {
        return ErrnoToStatus(errno);
    }
    if (length != 0 && send(socket, payload, length, 0) < 0) {
        return ErrnoToStatus(errno);
    }
    return kStatusSuccess;
}

// Payloads get a terminating zero byte, since error replies are read as text. If size_t has 32 bits, the sum may wrap
// to 0; the result is then SIZE_MAX, which every allocator refuses.
static size_t SizeWithTerminator(uint32_t length)
{
    const size_t size = size_t{length} + 1;
    return size - static_cast<size_t>(size == 0);
}

// Returns `length` bytes and a terminating zero byte, owned by the caller, or null if only a part of them was received.
static char *ReceivePayload(int socket, uint32_t length)
{
    const size_t size = SizeWithTerminator(length);
    auto *payload = static_cast<char *>(PLAX_SafeMalloc(size));
    const ssize_t received = recv(socket, payload, length, MSG_WAITALL);
    // Unsigned: a failed receive (-1) compares as large, so it is not an incomplete payload.
    // (test failed_payload_receive_reads_as_zeros)
    if (static_cast<size_t>(received) < length) {
        free(payload);
        return nullptr;
    }
    if (received < 0) {
        // Fresh zero pages instead of memset: the daemon may announce 4 GiB without sending a byte.
        free(payload);
        return static_cast<char *>(PLAX_SafeCalloc(size, 1));
    }
    payload[length] = '\0';
    return payload;
}

QRT_ReturnStatus ReceiveResponse(int socket, uint32_t *length, char **payload)
{
    FrameHeader header{};
    if (recv(socket, &header, sizeof header, MSG_WAITALL) < 0) {
        return ErrnoToStatus(errno);
    }
    const uint32_t announced = ntohl(header.payloadLength);
    char *received = nullptr;
    if (announced != 0) {
        received = ReceivePayload(socket, announced);
        if (received == nullptr) {
            Warning("Failed to receive the complete UDS message sent. Please try again");
            return kStatusSuccess;
        }
    }
    *length = announced;
    *payload = received;
    return ntohl(header.codeOrStatus);
}
