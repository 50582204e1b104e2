// The relay's side of one connection when there is an answers file: a request that the file has an answer for is
// answered from there, and all others are passed on to the daemon.
#ifndef PLAX_STANDIN_ANSWERING_RELAY_H
#define PLAX_STANDIN_ANSWERING_RELAY_H

#include "serve.h"

namespace standin {

std::unique_ptr<Session> MakeAnsweringRelaySession(Connection connection, const Watch &watch, const Answers &answers,
                                                   const std::string &daemonPath, Log *log);

} // namespace standin

#endif
