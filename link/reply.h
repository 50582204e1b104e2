// Reply classes: what is read after a request, and where it goes.
#ifndef PLAX_LINK_REPLY_H
#define PLAX_LINK_REPLY_H

#include "command_settings.h"
#include "return_status.h"

#include <cstdint>

enum class ReplyClass : uint8_t {
    Printed,               // one frame; its payload goes to standard output
    Checked,               // one frame; only its status is used
    None,                  // nothing is read
    Streamed,              // text without a frame until the daemon closes; to standard output or the output file
    StreamedForAllObjects, // Streamed with --all, Printed without
};

// Finishes a run whose request was sent with `sendStatus`: reports a send failure if the class reports it, or receives
// and shows the reply. Returns the status of the run.
QRT_ReturnStatus HandleReply(ReplyClass replyClass, int socket, QRT_ReturnStatus sendStatus,
                             const CommandSettings &settings);

#endif
