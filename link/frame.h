// The frame that carries requests and replies: an 8-byte header in network byte order, then the payload as it is.
#ifndef PLAX_LINK_FRAME_H
#define PLAX_LINK_FRAME_H

#include "command_code.h"
#include "return_status.h"

#include <cstddef>
#include <cstdint>

struct FrameHeader {
    uint32_t codeOrStatus;  // of a request, the command code; of a reply, the status
    uint32_t payloadLength; // bytes that follow the header
};
static_assert(sizeof(FrameHeader) == 8);
static_assert(offsetof(FrameHeader, codeOrStatus) == 0 && offsetof(FrameHeader, payloadLength) == 4);

// Returns the status that stands for a local system error: success for 0, the same status for an errno and its
// negative.
QRT_ReturnStatus ErrnoToStatus(int error);

// Sends one request: the header, then `length` bytes of `payload` unless `length` is 0.
// Returns success, or the wrapped errno of the send that failed; after a failed header the payload is not tried.
// A send that takes only a part is neither noticed nor repeated.
QRT_ReturnStatus SendCommand(int socket, CommandCode code, const void *payload, size_t length);

// Receives one reply and returns the status in it, or the wrapped errno when the header cannot be received. Header
// bytes that the daemon never sent read as zero, so a daemon that closes without an answer has answered success. An
// incomplete payload is reported through Warning and reads as success without a payload; one whose receive fails is
// handed on as zeros of the announced length.
// When the header cannot be received or the payload is incomplete, *length and *payload keep what they held. Otherwise
// they hold the reply's length in bytes and its payload: null for length 0, else followed in memory by a zero byte, and
// released by the caller with free.
QRT_ReturnStatus ReceiveResponse(int socket, uint32_t *length, char **payload);

#endif
