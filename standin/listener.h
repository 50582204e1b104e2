// The listening socket. It is created only if no daemon answers at its path, and removed only if nobody replaced it.
#ifndef PLAX_STANDIN_LISTENER_H
#define PLAX_STANDIN_LISTENER_H

#include "socket_io.h"

#include <sys/types.h>

#include <string>

namespace standin {

class Listener {
public:
    // Replaces a stale socket. Throws with a message for the user if a daemon answers at the path, if something other
    // than a socket is there, or if a system call fails. The socket never has permissions beyond `mode`.
    Listener(const std::string &path, mode_t mode);
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;
    ~Listener();

    [[nodiscard]] int Get() const
    {
        return socket_.Get();
    }
    // Also removes the socket's file. Allocates nothing.
    void Close();
    // Does nothing when the listener is closed. Allocates nothing.
    void RemoveFile() const;

private:
    std::string path_;
    std::string directory_;
    Descriptor socket_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

// Removes the file of the listener created last, if it still exists. Any thread may call this: the socket stays open,
// because another thread may be accepting.
void RemoveCurrentSocketFile();

} // namespace standin

#endif
