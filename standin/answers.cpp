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

static void AddCommand(AnswerBook *book, const CommandRow &row, bool allObjects)
{
    CommandAnswers &answers = (*book)[AnswerKey(row, allObjects)];
    answers.command = &row;
    answers.replyClass = allObjects ? ReplyClass::Streamed : row.replyClass;
    answers.builtIn = PlainAnswer(allObjects ? kAllObjectsAnswer : row.answer);
}

AnswerBook BuiltInAnswers()
{
    AnswerBook book;
    for (const CommandRow &row : AllCommands()) {
        AddCommand(&book, row, false);
        if (row.streamsForAllObjects) {
            AddCommand(&book, row, true);
        }
    }
    return book;
}

// The reply to a request with an unknown code: EINVAL as a status, and a text.
static const Answer &Refusal()
{
    static const Answer refusal = [] {
        Answer answer = PlainAnswer("unknown command");
        answer.status = 0x2bad0016;
        return answer;
    }();
    return refusal;
}

static bool Holds(const FieldCondition &condition, const DecodedRequest &request)
{
    return std::any_of(request.fields.begin(), request.fields.end(), [&](const Field &field) {
        return field.name == condition.name && nlohmann::json::parse(DumpJson(field.value)) == condition.value;
    });
}

static bool Fits(const AnswerEntry &entry, const DecodedRequest &request)
{
    return std::all_of(entry.conditions.begin(), entry.conditions.end(),
                       [&](const FieldCondition &condition) { return Holds(condition, request); });
}

static const Answer &NextAnswer(AnswerEntry *entry)
{
    size_t turn = entry->next++;
    for (const Answer &answer : entry->answers) {
        if (turn < answer.times) {
            return answer;
        }
        turn -= answer.times;
    }
    return entry->answers.back();
}

ChosenAnswer ChooseAnswer(AnswerBook *book, const DecodedRequest &request)
{
    if (request.command == nullptr) {
        return {&Refusal(), AnswerSource::BuiltIn};
    }
    CommandAnswers &answers = book->find(AnswerKey(*request.command, request.allObjects))->second;
    for (AnswerEntry &entry : answers.entries) {
        if (Fits(entry, request)) {
            return {&NextAnswer(&entry), AnswerSource::File};
        }
    }
    return {&answers.builtIn, answers.entries.empty() ? AnswerSource::BuiltIn : AnswerSource::Unmatched};
}

static void AddUnused(const AnswerEntry &entry, std::vector<std::string> *places)
{
    size_t turn = 0; // the first request that gets the answer
    for (const Answer &answer : entry.answers) {
        if (!answer.listPlace.empty() && entry.next <= turn) {
            places->push_back(answer.listPlace);
        }
        turn += answer.times;
    }
}

std::vector<std::string> UnusedAnswers(const AnswerBook &book)
{
    std::vector<std::string> places;
    for (const auto &[key, command] : book) {
        for (const AnswerEntry &entry : command.entries) {
            AddUnused(entry, &places);
        }
    }
    return places;
}

} // namespace standin
