// Copies a template from standard input to standard output, and replaces each ~name~ by a list from the tool's tables.

#include "callback_words.h"
#include "command_table.h"
#include "option_table.h"
#include "work_items.h"

#include <initializer_list>
#include <iostream>
#include <map>
#include <string>

using Texts = std::map<std::string, std::string, std::less<>>;

// Takes the text up to the next `end`, which is dropped, or all of it.
static std::string Take(std::string *text, std::string_view end)
{
    std::string taken = text->substr(0, text->find(end));
    text->erase(0, taken.size() + end.size());
    return taken;
}

static std::string Replaced(std::string text, std::string_view unwanted, std::string_view escape)
{
    for (size_t i = text.find_first_of(unwanted); i != text.npos; i = text.find_first_of(unwanted, i + 1)) {
        text.insert(i, escape);
        i += escape.size();
    }
    return text;
}

// Text in single quotes, quoted so that all three shells read it.
static std::string Quoted(const std::string &text)
{
    return "'" + Replaced(text, "'", R"('\')") + "'";
}

// Colons and brackets are special in the arguments of zsh's helper functions.
static std::string ForZsh(const std::string &text)
{
    return Replaced(text, R"(:[]\)", "\\");
}

// The first sentence without its full stop: usage and examples are too long for a list of words.
static std::string Description(const CommandRow &row)
{
    std::string text = row.help;
    text = Take(&text, ". ");
    return text.ends_with('.') ? text.substr(0, text.size() - 1) : text;
}

// The list of an argument's values is left out.
static std::string Description(const OptionRow &row)
{
    std::string text = row.help;
    text = row.offers == nullptr ? text : Take(&text, " (");
    return text.ends_with(' ') ? text.substr(0, text.size() - 1) : text;
}

static void AddWord(std::string *list, std::string_view word)
{
    list->append(list->empty() ? "" : " ").append(word);
}

static std::string Joined(std::initializer_list<std::string_view> pieces)
{
    std::string joined;
    for (const std::string_view piece : pieces) {
        joined += piece;
    }
    return joined;
}

static std::string WorkItemNames()
{
    std::string names;
    for (const WorkItem &item : kWorkItems) {
        AddWord(&names, item.name);
    }
    return names;
}

// Each shell's offers for an option's argument.
struct Offers {
    std::string bash;
    std::string zsh;
    std::string fish;
};

static Offers OffersOf(const OptionRow &row)
{
    std::string lines = row.offers == nullptr ? "" : row.offers;
    if (lines.empty()) {
        return {"", " ", " -x"};
    }
    if (lines == kFileNames) {
        return {"_plax_tool_files", "_files", " -r -F"};
    }
    if (lines == kWorkItemNames) {
        const std::string names = WorkItemNames();
        return {"_plax_tool_words " + Quoted(names), "(" + names + ")", " -x -a " + Quoted(names)};
    }
    Offers offers{"_plax_tool_numbers", "", ""};
    while (!lines.empty()) {
        std::string meaning = Take(&lines, "\n");
        const std::string value = Take(&meaning, ":");
        AddWord(&offers.bash, Quoted(Joined({value, "  ", meaning})));
        AddWord(&offers.zsh, Joined({value, "\\:", Replaced(ForZsh(meaning), " ", "\\")}));
        AddWord(&offers.fish, Joined({value, "\\t\"", meaning, "\""}));
    }
    return {offers.bash, "((" + offers.zsh + "))", " -x -a '" + offers.fish + "'"};
}

static void AddCommand(const CommandRow &row, Texts *texts)
{
    const std::string word = row.word;
    AddWord(&(*texts)["commands"], word);
    (*texts)["zsh-commands"] += "        " + Quoted(word + ":" + ForZsh(Description(row))) + "\n";
    (*texts)["fish-commands"] +=
        "complete -c plax-tool -n '__plax_tool_words 0 0' -a " + word + " -d " + Quoted(Description(row)) + "\n";
}

static void AddOption(const OptionRow &row, Texts *texts)
{
    const bool takesArgument = *row.argumentName != '\0';
    const Offers offers = OffersOf(row);
    const std::string letter(1, row.letter);
    const std::string name = row.longName;
    AddWord(&(*texts)["options"], "-" + letter + " --" + name);
    if (takesArgument) {
        (*texts)["letters-with-argument"] += letter;
        (*texts)["bash-long-options"] += "        --" + name + ") awaiting=" + letter + " ;;\n";
    }
    if (!offers.bash.empty()) {
        (*texts)["bash-arguments"] += "        " + letter + ") " + offers.bash + "; return ;;\n";
    }
    // After --help nothing else is offered. Other options exclude only themselves.
    const std::string excluded = name == "help" ? "- : *" : "-" + letter + " --" + name;
    const std::string argument = takesArgument ? ":" + ForZsh(row.argumentName) + ":" + offers.zsh : "";
    (*texts)["zsh-options"] += "        '(" + excluded + ")'{-" + letter + (takesArgument ? "+" : "") + ",--" + name +
                               (takesArgument ? "=" : "") + "}" +
                               Quoted("[" + ForZsh(Description(row)) + "]" + argument) + " \\\n";
    AddWord(&(*texts)["fish-option-kinds"], letter + "/" + name + (takesArgument ? "=+" : ""));
    (*texts)["fish-options"] += "complete -c plax-tool -s " + letter + " -l " + name + " -d " +
                                Quoted(Description(row)) + (takesArgument ? offers.fish : "") + "\n";
}

static Texts AllTexts()
{
    Texts texts;
    for (const CommandRow &row : kCommands) {
        if (row.help != nullptr) {
            AddCommand(row, &texts);
        }
    }
    for (const OptionRow &row : kOptions) {
        AddOption(row, &texts);
    }
    for (const CallbackWord &event : kEventWords) {
        AddWord(&texts["callback-words"], event.word);
    }
    for (const CallbackWord &entry : kEntryWords) {
        AddWord(&texts["callback-words"], entry.word);
    }
    return texts;
}

int main()
{
    const Texts texts = AllTexts();
    std::string part;
    for (bool isName = false; std::getline(std::cin, part, '~'); isName = !isName) {
        std::cout << (isName ? texts.at(part) : part);
    }
    std::cout.flush();
    return std::cout ? 0 : 1;
}
