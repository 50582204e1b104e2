// Streamed answers: raw text from the daemon until it closes the connection.
#ifndef PLAX_LINK_STREAM_H
#define PLAX_LINK_STREAM_H

#include "return_status.h"

// Copies the daemon's text to the file at `outputPath`, which is created or truncated, or to standard output if
// `outputPath` is null. Returns success when the daemon closes the connection, or the wrapped errno of the open or the
// receive that failed. Write errors are ignored. The file is left open until the process exits.
QRT_ReturnStatus StreamReply(int socket, const char *outputPath);

#endif
