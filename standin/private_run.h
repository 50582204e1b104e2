// A mount namespace in which the stand-in's socket is at the tool's default path.
#ifndef PLAX_STANDIN_PRIVATE_RUN_H
#define PLAX_STANDIN_PRIVATE_RUN_H

#include <string>

namespace standin {

// Gives the calling process, which must have one thread, a mount namespace in which `socket` is at the tool's default
// path and everything else is where it was. An ordinary user also gets a user namespace, in which users and groups keep
// their numbers. `workDirectory` is an empty directory for the mounts. Throws with a message for the user if a system
// call fails.
void EnterPrivateRun(const std::string &socket, const std::string &workDirectory);

} // namespace standin

#endif
