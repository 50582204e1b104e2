// Creates and removes the socket file. Checking whether a socket is stale, removing it and creating a new one are three
// steps, and two stand-ins that start at once must not remove each other's socket between them. So these steps hold a
// lock. It is a lock on the socket's directory, so that no lock file has to be removed.

#include "listener.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <stdexcept>

namespace standin {

[[noreturn]] static void Fail(const std::string &path, int error)
{
    throw std::runtime_error(SystemError(path, error));
}

// The one whose socket must not stay when memory runs out.
static std::atomic<Listener *> current = nullptr;

static std::string DirectoryOf(const std::string &path)
{
    const std::filesystem::path directory = std::filesystem::path(path).parent_path();
    return directory.empty() ? "." : directory.string();
}

// Sets errno if the returned descriptor is none.
static Descriptor LockDirectory(const std::string &directory)
{
    Descriptor lock(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return lock.Get() >= 0 && flock(lock.Get(), LOCK_EX) == 0 ? std::move(lock) : Descriptor();
}

// Non-blocking, because connecting to a daemon with a full backlog would block.
static int ProbeDaemon(const std::string &path)
{
    return Connect(NewSocket(SOCK_NONBLOCK), path);
}

static void RemoveStaleSocket(const std::string &path)
{
    struct stat status {};
    if (lstat(path.c_str(), &status) < 0) {
        if (errno != ENOENT) {
            Fail(path, errno);
        }
        return;
    }
    if (!S_ISSOCK(status.st_mode)) {
        throw std::runtime_error(path + ": exists and is not a socket");
    }
    const int error = ProbeDaemon(path);
    if (error == 0 || error == EAGAIN) {
        throw std::runtime_error(path + ": a daemon already listens there");
    }
    if (error != ECONNREFUSED || unlink(path.c_str()) < 0) {
        Fail(path, error != ECONNREFUSED ? error : errno);
    }
}

// With the mask, the file is created with its mode.
static int BindWithMode(const Descriptor &socket, const sockaddr_un &address, mode_t mode)
{
    const mode_t before = umask(~mode & 0777U);
    const int result = bind(socket.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
    const int error = errno;
    umask(before);
    return result == 0 ? 0 : error;
}

Listener::Listener(const std::string &path, mode_t mode) : path_(path), directory_(DirectoryOf(path))
{
    const sockaddr_un address = SocketAddress(path);
    const Descriptor lock = LockDirectory(directory_);
    if (lock.Get() < 0) {
        Fail(path, errno);
    }
    RemoveStaleSocket(path);
    socket_ = NewSocket(SOCK_NONBLOCK);
    if (const int error = BindWithMode(socket_, address, mode); error != 0) {
        Fail(path, error);
    }
    struct stat status {};
    if (listen(socket_.Get(), SOMAXCONN) < 0 || lstat(path.c_str(), &status) < 0) {
        Fail(path, errno);
    }
    device_ = status.st_dev;
    inode_ = status.st_ino;
    current = this;
}

Listener::~Listener()
{
    Close();
    current = nullptr;
}

void Listener::Close()
{
    RemoveFile();
    socket_.Close();
}

void Listener::RemoveFile() const
{
    if (socket_.Get() < 0) {
        return;
    }
    const Descriptor lock = LockDirectory(directory_); // none if the directory is gone; then lstat fails, too
    struct stat status {};
    // Compared while the socket is open, because the inode number of a closed one may be reused.
    if (lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_) {
        unlink(path_.c_str());
    }
}

void RemoveCurrentSocketFile()
{
    if (const Listener *listener = current; listener != nullptr) {
        listener->RemoveFile();
    }
}

} // namespace standin
