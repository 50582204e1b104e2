// The number of a command, which is also its request code on the wire. The daemon dispatches on these numbers, so they
// are never given out again. In the tool the numbers stand in the command table's rows and nowhere else.
#ifndef PLAX_INCLUDE_COMMAND_CODE_H
#define PLAX_INCLUDE_COMMAND_CODE_H

#include <cstdint>

enum class CommandCode : uint32_t {};

#endif
