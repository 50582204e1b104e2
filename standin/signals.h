// The program's signals. They are read from a descriptor and interrupt nothing.
#ifndef PLAX_STANDIN_SIGNALS_H
#define PLAX_STANDIN_SIGNALS_H

#include "descriptor.h"

namespace standin {

// Blocks SIGTERM, SIGINT and SIGHUP, so it must be made before the first thread starts. Failed writes
// are reported as errors: SIGPIPE and SIGXFSZ are ignored.
class Signals {
public:
    Signals();

    // Can be read from when a signal has come.
    [[nodiscard]] const Descriptor &Input() const
    {
        return input_;
    }
    // The next signal that has come, or 0. Never waits.
    int Next();

private:
    Descriptor input_;
};

} // namespace standin

#endif
