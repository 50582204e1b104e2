// A view of the file system in which a socket of our own lies at the path where plax-tool looks for its daemon.
#ifndef PLAX_STANDIN_PRIVATE_RUN_H
#define PLAX_STANDIN_PRIVATE_RUN_H

#include <string>

namespace standin {

// Gives the calling process, which must have one thread, a mount namespace of its own in which `socket` lies at the
// tool's default path; an ordinary user gets a user namespace with it, in which users and groups keep their numbers.
// Everything else stays where it is. `stage` is an empty directory to use meanwhile. Throws, with a message for the
// user, when the system refuses.
void EnterPrivateRun(const std::string &socket, const std::string &stage);

} // namespace standin

#endif
