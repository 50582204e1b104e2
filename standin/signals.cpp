#include "signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>

namespace standin {

Signals::Signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&signals, number);
    }
    input_ = Descriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (input_.Get() < 0) {
        throw std::runtime_error(SystemError("signalfd", errno));
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
}

int Signals::Next()
{
    signalfd_siginfo signal{};
    return read(input_.Get(), &signal, sizeof signal) == sizeof signal ? static_cast<int>(signal.ssi_signo) : 0;
}

} // namespace standin
