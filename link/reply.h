// What becomes of the daemon's answer: each command belongs to one reply class.
#ifndef PLAX_LINK_REPLY_H
#define PLAX_LINK_REPLY_H

#include "command_settings.h"
#include "return_status.h"

#include <cstdint>

enum class ReplyClass : uint8_t {
    Printed,               // a frame, whose payload goes to standard output
    Checked,               // a frame, of which only the status counts
    None,                  // nothing is read
    Streamed,              // raw text until the daemon closes, to standard output or the output file
    StreamedForAllObjects, // Streamed with --all, Printed without
};

// Ends the exchange after a request whose sending ended with `sendStatus`: reports its failure where
// the class asks for it, or reads and shows the reply. Returns the status that the run ends with.
QRT_ReturnStatus HandleReply(ReplyClass replyClass, int socket, QRT_ReturnStatus sendStatus,
                             const CommandSettings &settings);

#endif
