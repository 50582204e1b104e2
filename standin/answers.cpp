// The built-in answers come from the rows of the protocol table.

#include "answers.h"

#include <algorithm>

namespace standin {

std::string_view NameOf(Fault fault)
{
    for (const FaultName &row : kFaultNames) {
        if (row.fault == fault) {
            return row.name;
        }
    }
    return {};
}

size_t PayloadSize(const Answer &answer)
{
    size_t size = 0;
    for (const Piece &piece : answer.pieces) {
        size += piece.bytes.size();
    }
    return size;
}

static Answer PlainAnswer(std::string_view text)
{
    Answer answer;
    answer.pieces.push_back({{}, std::string(text)});
    return answer;
}

std::string AnswerKey(const CommandRow &row, bool allObjects)
{
    return std::string(row.word) + (allObjects ? " --all" : "");
}

static void AddAnswer(AnswerBook *book, const std::string &key, ReplyClass replyClass, std::string_view text)
{
    AnswerList &list = (*book)[key];
    list.replyClass = replyClass;
    list.answers.push_back(PlainAnswer(text));
}

AnswerBook BuiltInAnswers()
{
    AnswerBook book;
    for (const CommandRow &row : AllCommands()) {
        AddAnswer(&book, AnswerKey(row, false), row.replyClass, row.answer);
        if (row.streamsForAllObjects) {
            AddAnswer(&book, AnswerKey(row, true), ReplyClass::Streamed, kAllObjectsAnswer);
        }
    }
    return book;
}

// What a daemon says to a request that it does not know: the errno EINVAL as a status, and a word on it.
static const Answer &Refusal()
{
    static const Answer refusal = [] {
        Answer answer = PlainAnswer("unknown command");
        answer.status = 0x2bad0016;
        return answer;
    }();
    return refusal;
}

const Answer &NextAnswer(AnswerBook *book, const DecodedRequest &request)
{
    if (request.command == nullptr) {
        return Refusal();
    }
    AnswerList &list = book->find(AnswerKey(*request.command, request.allObjects))->second;
    const size_t turn = list.next.fetch_add(1);
    return list.answers[std::min(turn, list.answers.size() - 1)];
}

} // namespace standin
