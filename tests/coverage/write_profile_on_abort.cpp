// Linked into the programs of a coverage build: a run of the tool that ends by abort() still writes its counts, which
// otherwise only a normal exit does. The unit tests are left alone, since they look at what a dying process says.

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
