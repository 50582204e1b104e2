// Accepting connections, each served by a thread of its own so that a slow client keeps no other waiting, until a
// signal ends the program.
#ifndef PLAX_STANDIN_CONNECTIONS_H
#define PLAX_STANDIN_CONNECTIONS_H

#include "listener.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <stop_token>

namespace standin {

struct Connection {
    Descriptor socket;
    uint64_t number; // counted from 1 in the order of arrival, without gaps
    std::chrono::system_clock::time_point since;
    std::stop_token stop;       // asked to stop when the program ends: no waiting after that
    std::atomic<bool> *stopped; // set when it was this program that shut the connection down
};

// Must be called before the first thread starts: SIGTERM and SIGINT are read like any other input from then on.
void BlockEndSignals();

// Returns after SIGTERM or SIGINT, when every connection that had come in by then has been handled to its end.
void ServeConnections(const Listener &listener, const std::function<void(Connection &)> &handle);

// Whether nothing more can be sent to the socket's peer, nor come from it apart from what has arrived already.
bool PeerHasGone(int socket);

} // namespace standin

#endif
