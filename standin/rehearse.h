// Running a script while a stand-in answers its plax-tool.
#ifndef PLAX_STANDIN_REHEARSE_H
#define PLAX_STANDIN_REHEARSE_H

#include <functional>
#include <string>
#include <vector>

namespace standin {

struct Rehearsal {
    std::vector<char *> script; // its words, and a null
    bool socketOption = false;  // plax-tool is given -s, instead of a socket at its default path
    // Serves on the socket until SIGTERM, closes `ready` when clients can connect, and returns the exit status.
    std::function<int(const std::string &socketPath, int ready)> serve;
};

// Returns the exit status of `serve` if it is not 0, else that of the script, or 128 + the signal that killed it.
int Rehearse(const Rehearsal &rehearsal);

} // namespace standin

#endif
