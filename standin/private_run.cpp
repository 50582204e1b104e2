// A tmpfs covers the directory of the default path, and each entry of the directory is bind-mounted into it. An overlay
// would need no list of the entries. But it would hide the mounts below the directory and the script's changes there
// would reach nobody else, and not every kernel lets ordinary users mount one.

#include "private_run.h"

#include "command_settings.h"
#include "descriptor.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace standin {

namespace fs = std::filesystem;

static void Check(int result, const std::string &what)
{
    if (result < 0) {
        throw std::runtime_error(SystemError(what, errno));
    }
}

static void WriteText(const char *path, const std::string &text)
{
    const Descriptor file(open(path, O_WRONLY | O_CLOEXEC));
    Check(file.Get(), path);
    Check(static_cast<int>(write(file.Get(), text.data(), text.size())), path);
}

// Maps an ID to itself, which is all that an ordinary user is allowed.
static std::string OnlyMap(unsigned number)
{
    const std::string text = std::to_string(number);
    return text + " " + text + " 1";
}

// Root needs no user namespace, in which it would lose its rights to other users' files.
static void EnterNamespaces()
{
    if (unshare(CLONE_NEWNS) == 0) {
        return;
    }
    const std::string user = OnlyMap(geteuid());
    const std::string group = OnlyMap(getegid());
    Check(unshare(CLONE_NEWUSER | CLONE_NEWNS), "unshare");
    WriteText("/proc/self/setgroups", "deny");
    WriteText("/proc/self/uid_map", user);
    WriteText("/proc/self/gid_map", group);
}

// Creates a mount point of the entry's type, as listings of the directory show it. A device gets a regular file, since
// only root can create devices.
static void MakePlace(const fs::file_status &status, const fs::path &place)
{
    const mode_t type = fs::is_socket(status) ? S_IFSOCK : fs::is_fifo(status) ? S_IFIFO : S_IFREG;
    const int result =
        fs::is_directory(status) ? mkdir(place.c_str(), 0700) : mknod(place.c_str(), type | S_IRUSR | S_IWUSR, 0);
    Check(result, place);
}

static void Bind(const fs::path &from, const fs::path &to)
{
    // ENOENT: the entry has just been removed.
    if (mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) < 0 && errno != ENOENT) {
        throw std::runtime_error(SystemError("bind " + from.string(), errno));
    }
}

static void ShowEntry(const fs::directory_entry &entry, const fs::path &place)
{
    if (entry.is_symlink()) {
        fs::create_symlink(fs::read_symlink(entry.path()), place);
        return;
    }
    MakePlace(entry.status(), place);
    Bind(entry.path(), place);
}

// A user who cannot create files in the real directory cannot create any in this one.
static void MountWorkDirectory(const fs::path &directory, const std::string &workDirectory)
{
    const char *mode = access(directory.c_str(), W_OK) == 0 ? "mode=0755" : "mode=0555";
    Check(mount("plaxd-standin", workDirectory.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, mode), "mount tmpfs");
}

void EnterPrivateRun(const std::string &socket, const std::string &workDirectory)
{
    const fs::path defaultPath = kDefaultSocketPath;
    const fs::path directory = fs::canonical(defaultPath.parent_path());
    std::error_code error;
    const fs::path workingDirectory = fs::current_path(error);
    EnterNamespaces();
    Check(mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr), "mount /");
    MountWorkDirectory(directory, workDirectory);
    for (const fs::directory_entry &entry : fs::directory_iterator(directory)) {
        if (entry.path().filename() != defaultPath.filename()) {
            ShowEntry(entry, workDirectory / entry.path().filename());
        }
    }
    const fs::path place = workDirectory / defaultPath.filename();
    MakePlace(fs::file_status(fs::file_type::socket), place);
    Bind(socket, place);
    Check(mount(workDirectory.c_str(), directory.c_str(), nullptr, MS_MOVE, nullptr), "mount " + directory.string());
    fs::current_path(workingDirectory, error); // it may be below the directory
}

} // namespace standin
