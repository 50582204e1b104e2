// Words as a POSIX shell reads them.
#ifndef PLAX_STANDIN_SHELL_WORDS_H
#define PLAX_STANDIN_SHELL_WORDS_H

#include <string>
#include <string_view>
#include <vector>

namespace standin {

// The word, quoted if a shell would otherwise read anything else.
std::string ShellWord(std::string_view word);

// A text with one command a line.
struct ShellText {
    std::string_view rest;
    size_t line = 1; // in which the rest begins
};

// Takes the next line, or the lines that a quoted newline joins, and returns its words: none for a blank line or a
// comment. Nothing is expanded, so what a shell would expand must be quoted. *error says what is wrong, if anything is.
std::vector<std::string> TakeCommand(ShellText *text, std::string *error);

} // namespace standin

#endif
