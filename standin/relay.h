// The relay's side of one connection: between a client and the daemon it passes on every byte, and every ending, at
// once and as it is, and logs what it saw.
#ifndef PLAX_STANDIN_RELAY_H
#define PLAX_STANDIN_RELAY_H

#include "server.h"

namespace standin {

std::unique_ptr<Session> MakeRelaySession(Connection connection, const Watch &watch, const std::string &daemonPath,
                                          Log *log);

} // namespace standin

#endif
