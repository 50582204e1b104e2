// A request as the shell command that sends it.
#ifndef PLAX_STANDIN_REQUEST_COMMAND_H
#define PLAX_STANDIN_REQUEST_COMMAND_H

#include "decoder.h"

#include <span>
#include <string>

namespace standin {

// The command line of plax-tool that sends exactly the request's bytes, quoted for a POSIX shell: a text with newlines
// spans lines. A comment that gives the reasons when the tool cannot send them.
std::string RequestCommand(const DecodedRequest &request);

// Rewrites a typed command line as the one above for the request that it sends. Options must be single letters. If no
// such line can be logged, *error says why.
std::string TidyCommand(std::span<const std::string> words, std::string *error);

} // namespace standin

#endif
