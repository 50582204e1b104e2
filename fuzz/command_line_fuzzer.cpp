// Fuzzes whole runs from the argument vector to the request.
//
// An input is a command line, its words separated by single blanks. Letters before it set the daemon's behaviour: c
// refuses the connection, h closes it before the request is sent. In a word, "*" and a number become that many
// characters of a list, and "@" and a byte become one of the words that the tool knows.

#include "input.h"
#include "run_property.h"

#include "callback_words.h"
#include "command_table.h"
#include "option_table.h"
#include "work_items.h"

#include <cstdlib>

static constexpr size_t kListCharactersMax = 100000;

static std::vector<std::string> KnownWords()
{
    std::vector<std::string> words = {"52e6f3a1-0c94-4d1b-9a77-3f2b8c5d6e01"};
    for (const CommandRow &row : kCommands) {
        words.emplace_back(row.word);
    }
    for (const OptionRow &row : kOptions) {
        words.push_back(std::string("--") + row.longName);
        words.push_back({'-', row.letter});
    }
    for (const WorkItem &item : kWorkItems) {
        words.emplace_back(item.name);
    }
    return words;
}

static std::string ExpandWord(std::string_view word)
{
    static const std::vector<std::string> known = KnownWords();
    const size_t mark = word.find_first_of("*@");
    if (mark == word.npos) {
        return std::string(word);
    }
    const std::string before(word.substr(0, mark));
    const std::string after(word.substr(mark + 1));
    if (word[mark] == '@') {
        return after.empty() ? before : before + known[static_cast<uint8_t>(after[0]) % known.size()] + after.substr(1);
    }
    char *end = nullptr;
    const size_t count = std::min<size_t>(strtoul(after.c_str(), &end, 10), kListCharactersMax);
    return before + std::string(count, 'a') + end;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    opterr = 0;
    std::string_view input = AsText(data, size);
    const std::string_view letters = TakeWord(&input);
    Surroundings surroundings;
    surroundings.refusesConnection = Has(letters, 'c');
    surroundings.hangsUp = Has(letters, 'h');
    std::vector<std::string> words;
    do {
        words.push_back(ExpandWord(TakeWord(&input)));
    } while (!input.empty());
    CheckRun(surroundings, words);
    return 0;
}
