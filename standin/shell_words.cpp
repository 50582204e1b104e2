// Within single quotes, only the quote itself is special.

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

// ---- Reading ----

static char Take(ShellText *text)
{
    const char character = text->rest.front();
    text->rest.remove_prefix(1);
    text->line += character == '\n' ? 1 : 0;
    return character;
}

// The carriage return of a line end is like a blank before it.
static bool StartsWithBlank(std::string_view rest)
{
    return rest.front() == ' ' || rest.front() == '\t' || rest.starts_with("\r\n");
}

static void SetError(std::string *error, const std::string &what)
{
    if (error->empty()) {
        *error = what;
    }
}

// Takes the character after a backslash. A newline after a backslash is dropped.
static void TakeEscaped(ShellText *text, std::string *word)
{
    if (const char character = text->rest.empty() ? '\\' : Take(text); character != '\n') {
        *word += character;
    }
}

static void TakeQuoted(ShellText *text, char quote, std::string *word, std::string *error)
{
    static constexpr std::string_view kEscapable = "\\\"$`\n";
    while (!text->rest.empty()) {
        const char character = Take(text);
        if (character == quote) {
            return;
        }
        const bool means = quote == '"' && (character == '$' || character == '`');
        const bool escapes = quote == '"' && character == '\\' && !text->rest.empty() &&
                             kEscapable.find(text->rest.front()) != std::string_view::npos;
        if (means) {
            SetError(error, std::string(1, character) + " must be in single quotes");
        }
        if (escapes) {
            TakeEscaped(text, word);
        } else {
            *word += character;
        }
    }
    SetError(error, "a quote is not closed");
}

// Takes a word, up to the next blank or newline outside quotes.
static std::string TakeWord(ShellText *text, std::string *error)
{
    static constexpr std::string_view kSpecial = "$`;&|<>()*?[";
    std::string word;
    while (!text->rest.empty() && !StartsWithBlank(text->rest) && text->rest.front() != '\n') {
        const char character = Take(text);
        if (character == '\'' || character == '"') {
            TakeQuoted(text, character, &word, error);
        } else if (character == '\\') {
            TakeEscaped(text, &word);
        } else {
            if (kSpecial.find(character) != std::string_view::npos || (character == '~' && word.empty())) {
                SetError(error, std::string(1, character) + " must be quoted");
            }
            word += character;
        }
    }
    return word;
}

static void SkipComment(ShellText *text)
{
    text->rest.remove_prefix(std::min(text->rest.find('\n'), text->rest.size()));
}

std::vector<std::string> TakeCommand(ShellText *text, std::string *error)
{
    std::vector<std::string> words;
    while (!text->rest.empty()) {
        const char next = text->rest.front();
        if (next == '\n') {
            Take(text);
            return words;
        }
        if (StartsWithBlank(text->rest)) {
            Take(text);
        } else if (text->rest.starts_with("\\\n")) {
            Take(text);
            Take(text);
        } else if (next == '#') {
            SkipComment(text);
        } else {
            words.push_back(TakeWord(text, error));
        }
    }
    return words;
}

} // namespace standin
