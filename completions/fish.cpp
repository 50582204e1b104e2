// The completion for fish.

#include "listing.h"
#include "shells.h"

#include <ostream>

static constexpr const char *kHead = R"(# fish completion for plax-tool(8)

# Succeeds when the words before the cursor that are no options are the command given, or any one command if none is
# given, and when their number lies between the first two arguments.
function __plax_tool_words --argument-names least most command
    set -l words (commandline -opc)
    set -e words[1]
    argparse -i )";

static constexpr const char *kHeadTail = R"( -- $words 2>/dev/null
    test (count $argv) -ge $least -a (count $argv) -le $most
    and test -z "$command" -o "$command" = "$argv[1]"
end

complete -c plax-tool -f
)";

static void WriteOptionKinds(std::ostream &out, const std::vector<ListedOption> &options)
{
    for (const ListedOption &option : options) {
        out << option.letter << '/' << option.longName << (option.argumentName.empty() ? "" : "=+")
            << (&option == &options.back() ? "" : " ");
    }
}

// The list is unfolded once more when it is used: there "\t" parts a value from its meaning.
static std::string ValueList(const std::vector<Value> &values)
{
    std::string list;
    for (const Value &value : values) {
        list += Join({list.empty() ? "" : " ", value.text});
        if (!value.meaning.empty()) {
            list += Join({"\\t\"", value.meaning, "\""});
        }
    }
    return list;
}

static const char *ArgumentFlags(const ListedOption &option)
{
    if (option.argumentName.empty()) {
        return "";
    }
    return option.offer == Offer::Files ? " -r -F" : " -x";
}

static void WriteOption(std::ostream &out, const ListedOption &option)
{
    out << "complete -c plax-tool -s " << option.letter << " -l " << option.longName << ArgumentFlags(option) << " -d "
        << Quote(option.description);
    if (option.offer == Offer::Values) {
        out << " -a " << Quote(ValueList(option.values));
    }
    out << '\n';
}

static void WriteCommands(std::ostream &out)
{
    for (const ListedCommand &command : ListCommands()) {
        out << "complete -c plax-tool -n '__plax_tool_words 0 0' -a " << command.word << " -d "
            << Quote(command.description) << '\n';
    }
}

static void WriteFollowingWords(std::ostream &out)
{
    for (const FollowingWords &following : ListFollowingWords()) {
        out << "complete -c plax-tool -n '__plax_tool_words 1 " << following.countMax << ' ' << following.command
            << "' -a '";
        const char *separator = "";
        for (const std::string_view word : following.words) {
            out << separator << word;
            separator = " ";
        }
        out << "'\n";
    }
}

void WriteFish(std::ostream &out)
{
    const std::vector<ListedOption> options = ListOptions();
    out << kHead;
    WriteOptionKinds(out, options);
    out << kHeadTail;
    WriteCommands(out);
    WriteFollowingWords(out);
    for (const ListedOption &option : options) {
        WriteOption(out, option);
    }
}
