// The listening socket at a path: made only where no daemon answers, and removed only if it is still the one made here.
#ifndef PLAX_STANDIN_LISTENER_H
#define PLAX_STANDIN_LISTENER_H

#include "socket_io.h"

#include <sys/types.h>

#include <string>

namespace standin {

struct Listener {
    std::string path;
    Descriptor socket;
    dev_t device;
    ino_t inode;
};

// Throws, with a message for the user, when a live daemon or something other than a socket is at the path, and when the
// system refuses. A socket that nobody listens on any more is replaced. The new one never has permissions beyond
// `mode`.
Listener OpenListener(const std::string &path, mode_t mode);

void CloseListener(Listener *listener);

} // namespace standin

#endif
