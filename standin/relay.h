// A relayed connection: all bytes, closes and resets are passed on unchanged and at once in both directions, and
// logged.
#ifndef PLAX_STANDIN_RELAY_H
#define PLAX_STANDIN_RELAY_H

#include "server.h"

namespace standin {

// What has been read of the request before it is passed on: nothing, or all that ReadRequest reads.
struct TakenRequest {
    std::vector<uint8_t> bytes;
    LogTicket ticket; // null: it is not in the log yet
};

std::unique_ptr<Session> MakeRelaySession(Connection connection, const Watch &watch, const std::string &daemonPath,
                                          Log *log, const TakenRequest &taken = {});

} // namespace standin

#endif
