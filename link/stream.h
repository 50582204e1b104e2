// Streamed answers: raw text from the daemon until it closes the connection.
#ifndef PLAX_LINK_STREAM_H
#define PLAX_LINK_STREAM_H

#include "return_status.h"

// Copies the daemon's text to the file at `outputPath`, created or emptied, or to standard output when it is null.
// Returns success when the daemon closes the connection, or the wrapped errno of the open or the read that failed.
// Write errors are not noticed. The file stays open until the process exits.
QRT_ReturnStatus StreamReply(int socket, const char *outputPath);

#endif
