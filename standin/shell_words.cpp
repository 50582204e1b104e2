// Within single quotes, nothing but the quote itself means anything.

#include "shell_words.h"

#include <algorithm>

namespace standin {

static bool IsPlain(char character)
{
    static constexpr std::string_view kPlain =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_./:,+=@%";
    return kPlain.find(character) != std::string_view::npos;
}

std::string ShellWord(std::string_view word)
{
    if (!word.empty() && std::all_of(word.begin(), word.end(), IsPlain)) {
        return std::string(word);
    }
    std::string text = "'";
    for (const char character : word) {
        text += character == '\'' ? "'\\''" : std::string(1, character);
    }
    return text + "'";
}

} // namespace standin
