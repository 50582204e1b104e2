// The daemon's side of one connection: read a request, answer it as the answer book says, and log it.
#ifndef PLAX_STANDIN_SERVE_H
#define PLAX_STANDIN_SERVE_H

#include "answers.h"
#include "connections.h"
#include "log.h"

namespace standin {

void ServeConnection(Connection &connection, AnswerBook *book, Log *log);

} // namespace standin

#endif
