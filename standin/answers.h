// The answers of the stand-in. A command has entries, each for some or all of its requests. An entry gives its answers
// in order, one for each request, and then repeats the last one.
#ifndef PLAX_STANDIN_ANSWERS_H
#define PLAX_STANDIN_ANSWERS_H

#include "protocol_table.h"

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace standin {

enum class Fault {
    None,
    CloseWithoutReading,
    CloseWithoutAnswering,
    StaySilent,
    CutHeader,
    AnnounceMore,
    Garbage,
};

struct FaultName {
    std::string_view name;
    Fault fault;
};

inline constexpr FaultName kFaultNames[] = {
    {"close-without-reading", Fault::CloseWithoutReading},
    {"close-without-answering", Fault::CloseWithoutAnswering},
    {"stay-silent", Fault::StaySilent},
    {"cut-header", Fault::CutHeader},
    {"announce-more", Fault::AnnounceMore},
    {"garbage", Fault::Garbage},
};

std::string_view NameOf(Fault fault);

struct Piece {
    std::chrono::milliseconds pause; // before it is sent
    std::string bytes;
};

struct Answer {
    uint32_t times = 1; // that it is given before the next one's turn
    uint32_t status = 0;
    std::chrono::milliseconds delay{};
    bool pass = false;         // the request on to the daemon, instead of a reply
    std::vector<Piece> pieces; // of the payload, or of the stream
    Fault fault = Fault::None;
    uint32_t faultBytes = 0; // of the header that is cut, or announced
    std::string listPlace;   // of an answer in a list: its place in the answers file
};

size_t PayloadSize(const Answer &answer);

// A field that a request must have, with its value as in the JSON log.
struct FieldCondition {
    std::string name;
    nlohmann::json value;

    bool operator==(const FieldCondition &) const = default;
};

struct AnswerEntry {
    bool isConditional = false;             // it may have no conditions even so
    std::vector<FieldCondition> conditions; // all of them have to hold
    std::vector<Answer> answers;            // never empty
    size_t next = 0;
};

struct CommandAnswers {
    const CommandRow *command;
    ReplyClass replyClass;
    Answer builtIn;
    std::vector<AnswerEntry> entries; // the first one that fits answers; none: the built-in answer does
};

using AnswerBook = std::map<std::string, CommandAnswers, std::less<>>;

// The key of a command's answers: its word. A stream of all objects has a key of its own.
std::string AnswerKey(const CommandRow &row, bool allObjects);

// The built-in answers: one for each command.
AnswerBook BuiltInAnswers();

enum class AnswerSource {
    File,
    BuiltIn,   // the command has no entries
    Unmatched, // none of the command's entries fits, so the answer is the built-in one
};

struct ChosenAnswer {
    const Answer *answer;
    AnswerSource source;
};

ChosenAnswer ChooseAnswer(AnswerBook *book, const DecodedRequest &request);

// The places of the listed answers that were never given.
std::vector<std::string> UnusedAnswers(const AnswerBook &book);

} // namespace standin

#endif
