// A rehearsal has three processes. The stand-in has a session of its own, so that a Ctrl-C does not reach it and the
// script's last commands are still answered. The script has namespaces of its own, except with --socket-option. This
// process waits for both and cleans up.

#include "rehearse.h"

#include "command_settings.h"
#include "private_run.h"
#include "script_process.h"
#include "shell_words.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace standin {

namespace fs = std::filesystem;

namespace {

// Removed, with everything in it, when the rehearsal ends.
class TemporaryDirectory {
public:
    TemporaryDirectory()
    {
        const char *variable = getenv("TMPDIR");
        const fs::path parent = variable != nullptr && *variable != '\0' ? variable : "/tmp";
        std::string name = parent / "plaxd-standin-XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error(SystemError("cannot make a temporary directory in " + parent.string(), errno));
        }
        path_ = name;
    }
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;
    ~TemporaryDirectory()
    {
        std::error_code error;
        fs::remove_all(path_, error);
    }

    [[nodiscard]] fs::path operator/(const char *name) const
    {
        return path_ / name;
    }

private:
    fs::path path_;
};

constexpr const char *kSocketName = "plaxd.uds";

struct Pipe {
    Descriptor input;
    Descriptor output;
};

} // namespace

static Pipe MakePipe()
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0) {
        throw std::runtime_error(SystemError("pipe", errno));
    }
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

static pid_t StartServer(const Rehearsal &rehearsal, const TakenSignals &signals, const std::string &socketPath)
{
    Pipe ready = MakePipe();
    const pid_t server = StartProcess(signals, [&] {
        setsid();
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        return rehearsal.serve(socketPath, ready.output.Get());
    });
    ready.output.Close();
    char byte = 0;
    if (read(ready.input.Get(), &byte, 1) == 1) {
        return server;
    }
    AwaitProcess(server); // it has printed why it does not serve
    return -1;
}

// ---- How the script reaches the stand-in ----

static void UsePrivateRun(const std::string &socketPath, const std::string &workDirectory)
{
    try {
        fs::create_directory(workDirectory);
        EnterPrivateRun(socketPath, workDirectory);
    } catch (const std::exception &error) {
        throw std::runtime_error(std::string("the stand-in cannot be put at ") + kDefaultSocketPath + ": " +
                                 error.what() + "\ntry --socket-option");
    }
}

static std::string FindTool(const std::string &searchPath)
{
    for (size_t begin = 0, end = 0; end != std::string::npos; begin = end + 1) {
        end = searchPath.find(':', begin);
        std::string path = fs::path(searchPath.substr(begin, end - begin)) / "plax-tool";
        if (access(path.c_str(), X_OK) == 0) {
            return fs::absolute(path);
        }
    }
    return {};
}

// Puts a plax-tool first in PATH that runs the one found there with -s.
static int UseSocketOption(const std::string &socketPath, const std::string &directory)
{
    const char *variable = getenv("PATH");
    const std::string searchPath = variable != nullptr ? variable : "";
    const std::string tool = FindTool(searchPath);
    if (tool.empty()) {
        Report("plax-tool: not found in PATH");
        return kExitNotFound;
    }
    fs::create_directory(directory);
    const std::string wrapper = directory + "/plax-tool";
    std::ofstream(wrapper) << "#!/bin/sh\nexec " << ShellWord(tool) << " -s " << ShellWord(socketPath) << " \"$@\"\n";
    fs::permissions(wrapper, fs::perms::owner_all);
    setenv("PATH", (directory + ":" + searchPath).c_str(), 1);
    Report("warning: plax-tool is run with -s, so log-level and block-cdb-cb accept words that they refuse without it, "
           "and "
           "a plax-tool that is not found in PATH reaches the real daemon");
    return 0;
}

// Runs in the script's process.
static int BecomeScript(const Rehearsal &rehearsal, const TemporaryDirectory &directory)
{
    if (!rehearsal.socketOption) {
        UsePrivateRun(directory / kSocketName, directory / "run");
    } else if (const int status = UseSocketOption(directory / kSocketName, directory / "bin"); status != 0) {
        return status;
    }
    prctl(PR_SET_PDEATHSIG, SIGTERM); // not earlier: entering a user namespace clears it
    return Become(rehearsal.script);
}

static int RunScript(const Rehearsal &rehearsal, const TakenSignals &signals, const TemporaryDirectory &directory,
                     pid_t server)
{
    if (const int signal = TakeSignal(signals); signal != 0) {
        return kExitSignal + signal; // the script has not been started
    }
    const pid_t script = StartProcess(signals, [&] { return BecomeScript(rehearsal, directory); });
    return RunToEnd(script, signals, server);
}

int Rehearse(const Rehearsal &rehearsal)
{
    const TakenSignals signals = TakeSignals();
    const TemporaryDirectory directory;
    const pid_t server = StartServer(rehearsal, signals, directory / kSocketName);
    if (server < 0) {
        return 1;
    }
    const int scriptStatus = RunScript(rehearsal, signals, directory, server);
    kill(server, SIGTERM);
    const int serverStatus = AwaitProcess(server);
    return serverStatus != 0 ? serverStatus : scriptStatus;
}

} // namespace standin
