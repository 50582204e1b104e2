// Reading the answers file: JSON that says what the stand-in answers, and what it breaks.
#ifndef PLAX_STANDIN_ANSWER_FILE_H
#define PLAX_STANDIN_ANSWER_FILE_H

#include "answers.h"

#include <string>

namespace standin {

// The built-in answers, with those of the file in the place of theirs. Throws when anything in the file is wrong; the
// message then names every error, each on a line of its own with its place. `canPass` says whether there is a daemon to
// pass requests on to.
AnswerBook ReadAnswerFile(const std::string &path, bool canPass = false);

} // namespace standin

#endif
