// Streamed answers.
//
// The text is collected in one buffer, which is written when the next chunk might not fit and before every receive that
// would have to wait. A fast stream thus needs few writes, and a slow one is never delayed.

#include "stream.h"

#include "broken_pipe.h"
#include "frame.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

static constexpr size_t kChunkSizeMax = 1023;
static constexpr size_t kBufferSize = size_t{64} << 10;
static constexpr mode_t kOutputFileMode = 0666;

struct StreamBuffer {
    int output;
    size_t length; // of the bytes that are not yet written
    char bytes[kBufferSize];
};

static void Flush(StreamBuffer *buffer)
{
    size_t written = 0;
    while (written < buffer->length) {
        const ssize_t count = write(buffer->output, buffer->bytes + written, buffer->length - written);
        if (count <= 0) {
            break;
        }
        written += static_cast<size_t>(count);
    }
    buffer->length = 0;
}

// Receives the next chunk after the bytes in the buffer, which has space for it, and returns the result of the receive.
static ssize_t ReadChunk(int socket, StreamBuffer *buffer)
{
    if (buffer->length != 0) {
        const ssize_t count = recv(socket, buffer->bytes + buffer->length, kChunkSizeMax, MSG_DONTWAIT);
        if (count >= 0 || errno != EAGAIN) {
            return count;
        }
        Flush(buffer);
    }
    return recv(socket, buffer->bytes, kChunkSizeMax, 0);
}

QRT_ReturnStatus StreamReply(int socket, const char *outputPath)
{
    static StreamBuffer buffer;
    RestoreBrokenPipe();
    buffer.output =
        outputPath == nullptr ? STDOUT_FILENO : open(outputPath, O_WRONLY | O_CREAT | O_TRUNC, kOutputFileMode);
    if (buffer.output < 0) {
        return ErrnoToStatus(errno);
    }
    ssize_t count = 0;
    while ((count = ReadChunk(socket, &buffer)) > 0) {
        // A chunk is cut at its first zero byte; the next chunk is not affected. (test zero_byte_cuts_its_chunk)
        buffer.length += strnlen(buffer.bytes + buffer.length, static_cast<size_t>(count));
        if (sizeof buffer.bytes - buffer.length < kChunkSizeMax) {
            Flush(&buffer);
        }
    }
    const QRT_ReturnStatus status = count < 0 ? ErrnoToStatus(errno) : kStatusSuccess;
    Flush(&buffer);
    return status;
}
