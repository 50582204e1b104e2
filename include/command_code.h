// The number of a command, which is also its request code on the wire. The daemon dispatches on these numbers, so they
// are never reused. In the tool only the rows of the command table hold such numbers.
#ifndef PLAX_INCLUDE_COMMAND_CODE_H
#define PLAX_INCLUDE_COMMAND_CODE_H

#include <cstdint>

enum class CommandCode : uint32_t {};

#endif
