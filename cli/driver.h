// A whole run, from the argument vector to the status that becomes the exit status.
#ifndef PLAX_CLI_DRIVER_H
#define PLAX_CLI_DRIVER_H

#include "return_status.h"

// Performs the one command that the argument vector asks for and returns its outcome. The vector is permuted by the
// option parser.
QRT_ReturnStatus RunTool(int argumentCount, char **arguments);

#endif
