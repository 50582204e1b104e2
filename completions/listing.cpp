// The help text is taken apart here, since it is the one place that describes commands, options and numbers to people.

#include "listing.h"

#include "callback_words.h"

#include "work_items.h"

#include <algorithm>

struct ArgumentOffer {
    char letter;
    Offer offer;
};

static constexpr ArgumentOffer kArgumentOffers[] = {
    {'o', Offer::Files},   {'s', Offer::Files},   {'t', Offer::Nothing}, {'u', Offer::Nothing}, {'l', Offer::Nothing},
    {'j', Offer::Nothing}, {'f', Offer::Files},   {'d', Offer::Values},  {'r', Offer::Values},  {'i', Offer::Values},
    {'m', Offer::Values},  {'n', Offer::Nothing}, {'x', Offer::Nothing}, {'X', Offer::Values},
};

// A letter or a word that is not in its table ends the compilation where its row is read. The pointer is not compared
// with null, since g++ takes that for no constant when it looks for undefined behaviour.
static constexpr bool EveryArgumentHasItsOffer()
{
    size_t known = 0;
    for (const ArgumentOffer &argument : kArgumentOffers) {
        known += FindOption(argument.letter)->argumentKind == required_argument;
    }
    size_t required = 0;
    for (const OptionRow &row : kOptions) {
        required += row.argumentKind == required_argument;
    }
    return known == std::size(kArgumentOffers) && known == required;
}
static_assert(EveryArgumentHasItsOffer(), "decide what an option's argument is completed with");

static Offer FindOffer(char letter)
{
    const auto *found = std::find_if(std::begin(kArgumentOffers), std::end(kArgumentOffers),
                                     [letter](const ArgumentOffer &argument) { return argument.letter == letter; });
    return found == std::end(kArgumentOffers) ? Offer::Nothing : found->offer;
}

// Returns the text up to `end`, or all of it when it has none.
static std::string_view CutAt(std::string_view text, std::string_view end)
{
    return text.substr(0, text.find(end));
}

static std::string_view DropTail(std::string_view text, char unwanted)
{
    while (!text.empty() && text.back() == unwanted) {
        text.remove_suffix(1);
    }
    return text;
}

// The first sentence without its full stop: usage and examples have no room in a list of words.
static std::string_view CommandDescription(const CommandRow &row)
{
    return DropTail(CutAt(row.help, ". "), '.');
}

// Returns what the option's help line has behind the long name: "=<int>:  text", ":  text" or "  text".
static std::string_view BehindLongName(const OptionRow &row)
{
    const std::string_view help = row.help;
    const std::string_view name = row.longName;
    return help.substr(help.find(name) + name.size());
}

static std::string_view ArgumentName(const OptionRow &row)
{
    const std::string_view rest = BehindLongName(row);
    return row.argumentKind == no_argument ? std::string_view() : CutAt(rest.substr(2), ">");
}

static std::string_view FullDescription(const OptionRow &row)
{
    std::string_view rest = BehindLongName(row);
    if (row.argumentKind == required_argument) {
        rest.remove_prefix(rest.find('>') + 1);
    }
    rest.remove_prefix(rest.find_first_not_of(": "));
    return DropTail(rest, ' ');
}

static bool IsNumberedAt(std::string_view text, size_t place)
{
    return place + 1 < text.size() && text[place] >= '0' && text[place] <= '9' && text[place + 1] == ':';
}

static size_t FindNumber(std::string_view text, size_t from)
{
    while (from < text.size() && !IsNumberedAt(text, from)) {
        ++from;
    }
    return from;
}

// Reads "(0:none, 1: some, 2: all, but one)". A meaning may hold a comma, so it goes on to the next number or the end.
static std::vector<Value> ReadNumbers(std::string_view description)
{
    std::vector<Value> values;
    size_t place = FindNumber(description, 0);
    while (place < description.size()) {
        const size_t next = FindNumber(description, place + 1);
        std::string_view meaning = description.substr(place + 2, next - place - 2);
        meaning.remove_prefix(meaning.find_first_not_of(' '));
        meaning = next < description.size() ? meaning.substr(0, meaning.rfind(',')) : CutAt(meaning, ")");
        values.push_back({description.substr(place, 1), meaning});
        place = next;
    }
    return values;
}

static std::vector<Value> ListWorkItems()
{
    std::vector<Value> values;
    for (const WorkItem &item : kWorkItems) {
        values.push_back({item.name, {}});
    }
    return values;
}

static std::vector<Value> ListValues(const OptionRow &row)
{
    if (row.letter == 'i') {
        return ListWorkItems();
    }
    std::vector<Value> values = ReadNumbers(FullDescription(row));
    if (row.letter == 'X') {
        // The option's line leaves the default out; the text of set-global-exclusion-list has it.
        values.insert(values.begin(), {"0", "applicable to all new components"});
    }
    return values;
}

static ListedOption MakeListedOption(const OptionRow &row)
{
    const Offer offer = FindOffer(row.letter);
    ListedOption option{row.longName, {&row.letter, 1}, FullDescription(row), ArgumentName(row), offer, {}};
    if (offer == Offer::Values) {
        option.description = CutAt(option.description, " ("); // the values behind it are offered one by one
        option.values = ListValues(row);
    }
    return option;
}

std::vector<ListedCommand> ListCommands()
{
    std::vector<ListedCommand> commands;
    for (const CommandRow &row : kCommands) {
        if (row.help != nullptr) {
            commands.push_back({row.word, CommandDescription(row)});
        }
    }
    return commands;
}

std::vector<ListedOption> ListOptions()
{
    std::vector<ListedOption> options;
    for (const OptionRow &row : kOptions) {
        options.push_back(MakeListedOption(row));
    }
    return options;
}

// The words of log-level are not among them: which levels there are is the daemon's affair.
std::vector<FollowingWords> ListFollowingWords()
{
    static_assert(FindCommand("start-proactive-rebalance")->code != CommandCode{});
    static_assert(FindCommand("block-cdb-cb")->code != CommandCode{});
    std::vector<std::string_view> callbackWords;
    for (const CallbackWord &event : kEventWords) {
        callbackWords.push_back(event.word);
    }
    for (const CallbackWord &entry : kEntryWords) {
        callbackWords.push_back(entry.word);
    }
    return {{"start-proactive-rebalance", 4, {"default"}}, {"block-cdb-cb", 2, callbackWords}};
}

std::string Join(std::initializer_list<std::string_view> pieces)
{
    std::string joined;
    for (const std::string_view piece : pieces) {
        joined += piece;
    }
    return joined;
}

std::string Quote(std::string_view text)
{
    std::string quoted = "'";
    for (const char character : text) {
        if (character == '\'') {
            quoted += "'\\'";
        }
        quoted += character;
    }
    quoted += '\'';
    return quoted;
}
