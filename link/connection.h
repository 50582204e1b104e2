// The one connection of a run.
#ifndef PLAX_LINK_CONNECTION_H
#define PLAX_LINK_CONNECTION_H

#include <ctime>

// Connects to the daemon at `socketPath`, truncated to 107 bytes, and returns the socket. Its receives time out after
// `receiveTimeoutSec` seconds. On failure, prints a message through perror and returns -1. The socket is never 0, 1 or
// 2. It is left open until the process exits.
int OpenDaemonConnection(const char *socketPath, time_t receiveTimeoutSec);

#endif
