// What the completions offer, drawn from the command and option tables: a word, an option or a work item that is added
// there is completed without a change here. All texts are pieces of the help text.
#ifndef PLAX_COMPLETIONS_LISTING_H
#define PLAX_COMPLETIONS_LISTING_H

#include "command_table.h"
#include "option_table.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

enum class Offer : uint8_t {
    Nothing, // the option has no argument, or one that nobody can guess
    Files,
    Values,
};

struct Value {
    std::string_view text;
    std::string_view meaning; // empty when the text speaks for itself
};

struct ListedOption {
    std::string_view longName;
    std::string_view letter;
    std::string_view description;
    std::string_view argumentName; // empty: the option takes no argument
    Offer offer;
    std::vector<Value> values; // of its argument
};

struct ListedCommand {
    std::string_view word;
    std::string_view description;
};

// The few commands that read words behind their own.
struct FollowingWords {
    const char *command;
    size_t countMax;
    std::vector<std::string_view> words;
};

// The advertised commands.
std::vector<ListedCommand> ListCommands();
std::vector<ListedOption> ListOptions();
std::vector<FollowingWords> ListFollowingWords();

std::string Join(std::initializer_list<std::string_view> pieces);

// Puts `text` between single quotes, in the way that all three shells read.
std::string Quote(std::string_view text);

#endif
