// The one connection of a run.
#ifndef PLAX_LINK_CONNECTION_H
#define PLAX_LINK_CONNECTION_H

#include <ctime>

// Connects to the daemon at `socketPath` (only its first 107 bytes count) and returns the socket, whose receives give
// up after `receiveTimeoutSec` seconds. Returns -1 after a message through perror when that fails. The socket is never
// 0, 1 or 2, and it stays open until the process exits.
int OpenDaemonConnection(const char *socketPath, time_t receiveTimeoutSec);

#endif
