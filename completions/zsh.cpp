// The completion for zsh, a function file that compinit finds by its first line.

#include "listing.h"
#include "shells.h"

#include <ostream>

static constexpr const char *kMainHead = R"(
_plax_tool() {
    local curcontext=$curcontext state line
    typeset -A opt_args
    _arguments -C -s -S \
)";

static constexpr const char *kStates = R"(        '1: :_plax_tool_commands' \
        '*: :->following' && return 0

    [[ $state == following ]] || return 1
    # The word at the cursor is one of those counted.
    case $#line:$line[1] in
)";

static constexpr const char *kTail = R"(        <2->:log-level) _message 'log level' ;;
        *) _message 'no more words' ;;
    esac
}

_plax_tool "$@"
)";

// Colons and brackets have a meaning in the texts that zsh's helper functions take.
static std::string Escape(std::string_view text)
{
    std::string escaped;
    for (const char character : text) {
        if (std::string_view(":[]\\").find(character) != std::string_view::npos) {
            escaped += '\\';
        }
        escaped += character;
    }
    return escaped;
}

static std::string ValuesFunction(const ListedOption &option)
{
    return Join({"_plax_tool_", option.letter, "_values"});
}

static void WriteValues(std::ostream &out, const ListedOption &option)
{
    out << '\n' << ValuesFunction(option) << "() {\n    local -a values=(\n";
    for (const Value &value : option.values) {
        const std::string_view separator = value.meaning.empty() ? "" : ":";
        out << "        " << Quote(Join({value.text, separator, Escape(value.meaning)})) << '\n';
    }
    out << "    )\n    _describe -t values " << Quote(option.description) << " values\n}\n";
}

static void WriteCommands(std::ostream &out)
{
    out << "\n_plax_tool_commands() {\n    local -a commands=(\n";
    for (const ListedCommand &command : ListCommands()) {
        out << "        " << Quote(Join({command.word, ":", Escape(command.description)})) << '\n';
    }
    out << "    )\n    _describe -t commands command commands\n}\n";
}

static std::string Action(const ListedOption &option)
{
    switch (option.offer) {
    case Offer::Files:
        return "_files";
    case Offer::Values:
        return ValuesFunction(option);
    case Offer::Nothing:
        break;
    }
    return " "; // the message with the argument's name, and nothing to choose from
}

static void WriteOption(std::ostream &out, const ListedOption &option)
{
    const bool hasArgument = !option.argumentName.empty();
    // Nothing counts beside a call for help, and help alone is what counts.
    const std::string exclusions = option.letter == "h" ? "- *" : Join({"-", option.letter, " --", option.longName});
    std::string rest = Join({"[", Escape(option.description), "]"});
    if (hasArgument) {
        rest += Join({":", Escape(option.argumentName), ":", Action(option)});
    }
    out << "        '(" << exclusions << ")'{-" << option.letter << (hasArgument ? "+" : "") << ",--" << option.longName
        << (hasArgument ? "=" : "") << '}' << Quote(rest) << " \\\n";
}

static void WriteFollowingWords(std::ostream &out)
{
    for (const FollowingWords &following : ListFollowingWords()) {
        out << "        <2-" << following.countMax + 1 << ">:" << following.command << ") compadd --";
        for (const std::string_view word : following.words) {
            out << ' ' << word;
        }
        out << " ;;\n";
    }
}

void WriteZsh(std::ostream &out)
{
    const std::vector<ListedOption> options = ListOptions();
    out << "#compdef plax-tool\n";
    for (const ListedOption &option : options) {
        if (option.offer == Offer::Values) {
            WriteValues(out, option);
        }
    }
    WriteCommands(out);
    out << kMainHead;
    for (const ListedOption &option : options) {
        WriteOption(out, option);
    }
    out << kStates;
    WriteFollowingWords(out);
    out << kTail;
}
