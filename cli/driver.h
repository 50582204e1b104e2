// A whole run, from the argument vector to the status that becomes the exit status.
#ifndef PLAX_CLI_DRIVER_H
#define PLAX_CLI_DRIVER_H

#include "return_status.h"

// Performs the command in the argument vector and returns its status. Option parsing permutes the vector.
QRT_ReturnStatus RunTool(int argumentCount, char **arguments);

#endif
