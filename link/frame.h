// The frame that carries requests and replies: an 8-byte header in network byte order, then the payload.
#ifndef PLAX_LINK_FRAME_H
#define PLAX_LINK_FRAME_H

#include "command_code.h"
#include "return_status.h"

#include <cstddef>
#include <cstdint>

struct FrameHeader {
    uint32_t codeOrStatus;  // command code of a request, status of a reply
    uint32_t payloadLength; // in bytes
};
static_assert(sizeof(FrameHeader) == 8);
static_assert(offsetof(FrameHeader, codeOrStatus) == 0 && offsetof(FrameHeader, payloadLength) == 4);

// Returns the status of a local system error: success for 0, the same status for an errno and its negative.
QRT_ReturnStatus ErrnoToStatus(int error);

// Sends one request: the header, then `length` bytes of `payload` unless `length` is 0. Returns success, or the wrapped
// errno of the send that failed; if sending the header fails, the payload is not sent. A short send is not detected.
QRT_ReturnStatus SendCommand(int socket, CommandCode code, const void *payload, size_t length);

// Receives one reply and returns its status, or the wrapped errno if receiving the header fails.
// - Header bytes that were not received read as zero. A closed connection without a reply is therefore a success.
// - An incomplete payload is reported through Warning and is a success without a payload.
// - A payload whose receive fails reads as `length` zero bytes.
// If receiving the header fails or the payload is incomplete, *length and *payload are unchanged. Otherwise *length is
// the payload's length in bytes and *payload is null for length 0, or the payload and a terminating zero byte, which
// the caller releases with free.
QRT_ReturnStatus ReceiveResponse(int socket, uint32_t *length, char **payload);

#endif
