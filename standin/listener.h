// The listening socket at a path: made only where no daemon answers, and removed only if it is still the one made here.
#ifndef PLAX_STANDIN_LISTENER_H
#define PLAX_STANDIN_LISTENER_H

#include "socket_io.h"

#include <sys/types.h>

#include <string>

namespace standin {

class Listener {
public:
    // Throws, with a message for the user, when a live daemon or something other than a socket is at the path, and when
    // the system refuses. A socket that nobody listens on any more is replaced. The new one never has permissions
    // beyond `mode`.
    Listener(const std::string &path, mode_t mode);
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;
    ~Listener();

    [[nodiscard]] int Get() const
    {
        return socket_.Get();
    }
    // Also removes the socket's file.
    void Close();

private:
    std::string path_;
    Descriptor socket_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

} // namespace standin

#endif
