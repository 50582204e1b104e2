// Words as a POSIX shell reads them.
#ifndef PLAX_STANDIN_SHELL_WORDS_H
#define PLAX_STANDIN_SHELL_WORDS_H

#include <string>
#include <string_view>

namespace standin {

// The word, quoted if a shell would otherwise read anything else.
std::string ShellWord(std::string_view word);

} // namespace standin

#endif
