// What an argument rule checks, and what a sender builds its request from.
#ifndef PLAX_INCLUDE_INVOCATION_H
#define PLAX_INCLUDE_INVOCATION_H

#include "command_code.h"
#include "command_settings.h"

struct Invocation {
    CommandCode code;
    const CommandSettings &settings;
    int argumentCount;
    char *const *arguments; // after option parsing: options first, then the operands
    int argumentIndex;      // of the first operand after the command word, or 0 if there is none
    int socket;             // -1 until the run is connected
};

#endif
