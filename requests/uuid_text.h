// The text form of a UUID.
#ifndef PLAX_REQUESTS_UUID_TEXT_H
#define PLAX_REQUESTS_UUID_TEXT_H

#include "uuid.h"

// Writes the 36 lower-case characters of `uuid` to `text`, without a terminator, and returns their end.
char *WriteUuidText(const Uuid &uuid, char *text);

#endif
