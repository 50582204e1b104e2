// What an argument rule checks, and what a sender builds its request from.
#ifndef PLAX_INCLUDE_INVOCATION_H
#define PLAX_INCLUDE_INVOCATION_H

#include "command_code.h"
#include "command_settings.h"

struct Invocation {
    CommandCode code;
    const CommandSettings &settings;
    // The argument vector as option parsing left it: the operands stand at its end.
    int argumentCount;
    char *const *arguments;
    int argumentIndex; // position of the first word after the command word, or 0 when there is none
    int socket;        // -1 until the run is connected
};

#endif
