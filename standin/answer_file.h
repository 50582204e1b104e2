// Reading the answers file: JSON with the answers and faults of the stand-in.
#ifndef PLAX_STANDIN_ANSWER_FILE_H
#define PLAX_STANDIN_ANSWER_FILE_H

#include "answers.h"

#include <string>

namespace standin {

// Returns the built-in answers, replaced by those of the file where it has any. If the file has errors, throws with a
// message that lists all of them, one a line, each with its place. `canPass`: there is a daemon to pass requests on to.
AnswerBook ReadAnswerFile(const std::string &path, bool canPass = false);

} // namespace standin

#endif
