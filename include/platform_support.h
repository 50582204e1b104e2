// The four functions of the platform support library that the tool uses. The project builds a stand-alone library from
// platform/; PLAX_PLATFORM_LIBRARY selects another one when the build is configured.
#ifndef PLAX_INCLUDE_PLATFORM_SUPPORT_H
#define PLAX_INCLUDE_PLATFORM_SUPPORT_H

#include "return_status.h"

extern "C" {

// Shows the message made from a printf-style format and its values to the user.
void Warning(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Reports the message made from a printf-style format and its values, and ends the process.
[[noreturn]] void Panic(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Returns a new copy of a text, which the caller owns and releases with free.
char *UtilSafeStrdup0(const char *text);

// Returns the text of a status. The library owns the text, which is valid until the next call.
const char *QRT_ReturnStatusToString(QRT_ReturnStatus status);
}

#endif
