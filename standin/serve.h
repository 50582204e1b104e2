// A connection of the stand-in: reads a request, answers it from the answer book, and logs it.
#ifndef PLAX_STANDIN_SERVE_H
#define PLAX_STANDIN_SERVE_H

#include "answers.h"
#include "server.h"

namespace standin {

// The book in use can be replaced at any time: it answers the requests that come from then on.
struct Answers {
    std::shared_ptr<AnswerBook> book;
};

std::unique_ptr<Session> MakeServeSession(Connection connection, const Answers &answers, Log *log);

// For a request that has been read, but for its last byte, and for which the answer has been chosen.
std::unique_ptr<Session> MakeAnswerSession(Connection connection, const Answers &answers, Log *log, LogTicket ticket,
                                           const ChosenAnswer &chosen);

} // namespace standin

#endif
