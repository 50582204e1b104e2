// The text form of a UUID.
#ifndef PLAX_REQUESTS_UUID_TEXT_H
#define PLAX_REQUESTS_UUID_TEXT_H

#include "uuid.h"

// Writes the 36 characters of `uuid` in lower case to `text`, without a terminator, and returns the end of what it
// wrote.
char *WriteUuidText(const Uuid &uuid, char *text);

#endif
