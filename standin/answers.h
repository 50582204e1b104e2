// What the stand-in answers. Every command has a list of answers that is gone through once, request by request; its
// last answer is then given for ever.
#ifndef PLAX_STANDIN_ANSWERS_H
#define PLAX_STANDIN_ANSWERS_H

#include "protocol_table.h"

#include <atomic>
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
    uint32_t status = 0;
    std::chrono::milliseconds delay{};
    std::vector<Piece> pieces; // of the payload, or of the stream
    Fault fault = Fault::None;
    uint32_t faultBytes = 0; // of the header that is cut, or announced
};

size_t PayloadSize(const Answer &answer);

struct AnswerList {
    ReplyClass replyClass;
    std::vector<Answer> answers; // never empty
    std::atomic<size_t> next = 0;
};

using AnswerBook = std::map<std::string, AnswerList, std::less<>>;

// What a command's answers are found under: its word. A stream over all objects has answers of its own.
std::string AnswerKey(const CommandRow &row, bool allObjects);

// One plain answer a command.
AnswerBook BuiltInAnswers();

const Answer &NextAnswer(AnswerBook *book, const DecodedRequest &request);

} // namespace standin

#endif
