// What a sender gets to build its request from.
#ifndef PLAX_REQUESTS_REQUEST_H
#define PLAX_REQUESTS_REQUEST_H

#include "command_code.h"
#include "command_settings.h"

struct Request {
    CommandCode code;
    int socket;
    const CommandSettings &settings;
    // The argument vector as option parsing left it: the words that are no options stand at its end.
    int argumentCount;
    char *const *arguments;
    int argumentIndex; // position of the first word after the command word, or 0 when there is none
};

#endif
