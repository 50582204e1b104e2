// Linked into the programs of a coverage build: a run of the tool that ends by abort() still writes its counts, as at a
// normal exit. The unit tests do without it, since they compare the messages of an aborted process.

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

extern "C" int __llvm_profile_write_file();

static void WriteProfile(int signal)
{
    __llvm_profile_write_file();
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

__attribute__((constructor)) static void HandleAbort()
{
    if (std::strcmp(program_invocation_short_name, "unit-tests") != 0) {
        std::signal(SIGABRT, WriteProfile);
    }
}
