// The callback-block request, a facility for testing: it names an event, an entry and an object.
#ifndef PLAX_REQUESTS_CALLBACK_BLOCK_H
#define PLAX_REQUESTS_CALLBACK_BLOCK_H

#include "command_code.h"
#include "return_status.h"
#include "uuid.h"

// Finds the event and entry words among `arguments` from position `argumentIndex` to the end, and sends them and `uuid`
// in a 1024-byte request. Of several words of one kind the last counts, none counts as 0, other words are passed over.
// With `argumentIndex` 0 the whole vector is searched, program name and options included. Returns what SendCommand
// does.
QRT_ReturnStatus SendBlockCdbCbCommand(int argumentCount, char *const *arguments, int argumentIndex, int socket,
                                       CommandCode code, const Uuid &uuid);

#endif
