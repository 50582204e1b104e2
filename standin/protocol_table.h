// The commands as the daemon knows them. The table shares nothing with the tool's, so that an error in either shows
// when the two programs meet.
#ifndef PLAX_STANDIN_PROTOCOL_TABLE_H
#define PLAX_STANDIN_PROTOCOL_TABLE_H

#include "payload_shapes.h"

#include <cstdint>
#include <span>
#include <string_view>

namespace standin {

enum class ReplyClass {
    Printed,  // a frame, of which the client shows the payload
    Checked,  // a frame, of which the client looks at the status
    None,     // nothing is sent
    Streamed, // text without a frame, until the daemon closes the connection
};

struct CommandRow {
    uint32_t code;
    std::string_view word;
    ReplyClass replyClass;
    bool streamsForAllObjects; // the reply class is Streamed when the request asks for all objects
    const PayloadShape &payload;
    std::string_view answer; // what is answered when nobody says otherwise
    // The field that a client refuses to go without, also when it has its default value.
    std::string_view needed{};
};

// As a needed field: a client takes -a in the place of a UUID, and sends the zero UUID then.
inline constexpr std::string_view kUuidOrAll = "uuid or all";

std::span<const CommandRow> AllCommands();

// Null if no command has this code.
const CommandRow *FindCommand(uint32_t code);

// A request with an unknown code is answered like a checked command, so that its client sees the refusal.
ReplyClass ReplyClassOf(const DecodedRequest &request);

// The built-in answer of a stream of all objects.
inline constexpr std::string_view kAllObjectsAnswer =
    "6f3c1d52-0a6e-4b9f-8a51-2f7c9be0d314: idle, last visit 41 s ago\n"
    "b1d7e0a9-93c4-4e1d-9f6a-7d20c5a4e8f1: visiting, 3 of 8 components\n";

} // namespace standin

#endif
