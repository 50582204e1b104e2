// Changing and restoring the disposition of SIGPIPE.

#include "broken_pipe.h"

#include <csignal>

static struct sigaction inheritedAction;

void IgnoreBrokenPipe()
{
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &inheritedAction);
}

void RestoreBrokenPipe()
{
    sigaction(SIGPIPE, &inheritedAction, nullptr);
}
