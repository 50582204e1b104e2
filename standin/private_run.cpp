// The directory of the default path is replaced by a tmpfs into which everything in that directory is bound. An overlay
// would do without the list of entries, but it would hide the mounts below the directory, keep the script's changes
// there from everybody else, and not every kernel lets ordinary users mount it.

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

// A map from a number to itself, which is all that an ordinary user may ask for.
static std::string OnlyMap(unsigned number)
{
    const std::string text = std::to_string(number);
    return text + " " + text + " 1";
}

// Root needs no user namespace, in which it would lose its rights over everybody else's files.
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

// Of the right type, which is what a list of the directory tells. Nobody but root may make devices.
static void MakePlace(const fs::file_status &status, const fs::path &place)
{
    const mode_t type = fs::is_socket(status) ? S_IFSOCK : fs::is_fifo(status) ? S_IFIFO : S_IFREG;
    const int result =
        fs::is_directory(status) ? mkdir(place.c_str(), 0700) : mknod(place.c_str(), type | S_IRUSR | S_IWUSR, 0);
    Check(result, place);
}

static void Bind(const fs::path &from, const fs::path &to)
{
    // What has just been removed needs no place any more.
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

// Who cannot make files in the real directory cannot make any in this one either.
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
    fs::current_path(workingDirectory, error); // it may lie below the directory
}

} // namespace standin
