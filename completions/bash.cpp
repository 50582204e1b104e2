// The completion for bash, to be loaded by the bash-completion package.

#include "listing.h"
#include "shells.h"

#include <ostream>

static constexpr const char *kHead =
    R"(# bash completion for plax-tool(8)                        -*- shell-script -*-

# Takes one word that stands before the cursor: an option whose argument is still to come is noted in "awaiting", a word
# that is no option in "given".
_plax_tool_take()
{
    local tail
    case $1 in
)";

static constexpr const char *kTakeTail = R"(            [[ ${#tail} != 1 ]] || awaiting=$tail
            ;;
        *) given+=("$1") ;;
    esac
}

# Offers numbers. Each argument is a number, two spaces and a meaning: a list shows them whole, the command line gets
# the number alone.
_plax_tool_numbers()
{
    local entry
    for entry; do
        [[ ${entry%% *} != "$cur"* ]] || COMPREPLY+=("$entry")
    done
    case ${#COMPREPLY[@]}:${COMP_TYPE-} in
        [2-9]:33 | [2-9]:63 | [2-9]:64) ;;
        *) COMPREPLY=("${COMPREPLY[@]%% *}") ;;
    esac
}

# The shell takes a word with colons for several words, and replaces the last of them alone.
_plax_tool_files()
{
    _filedir
    __ltrim_colon_completions "$cur"
}

_plax_tool_words()
{
    mapfile -t COMPREPLY < <(compgen -W "$1" -- "$cur")
}

_plax_tool()
{
    # shellcheck disable=SC2034 # set by _init_completion
    local cur prev words cword split
    _init_completion -s -n : || return

    local word awaiting='' given=() only_words=''
    for word in "${words[@]:1:cword-1}"; do
        if [[ -n $awaiting ]]; then
            awaiting=''
        elif [[ -n $only_words ]]; then
            given+=("$word")
        elif [[ $word == -- ]]; then
            only_words=yes
        else
            _plax_tool_take "$word"
        fi
    done
    if [[ $split == true ]]; then
        _plax_tool_take "$prev"
        [[ -n $awaiting ]] || return
    fi

    case $awaiting in
)";

static constexpr const char *kArgumentsTail = R"(        ?) return ;;
    esac

    if [[ $cur == -* && -z $only_words ]]; then
        _plax_tool_words ')";

static constexpr const char *kOptionsTail = R"('
        return
    fi

    case ${#given[@]}:${given[0]-} in
)";

static constexpr const char *kTail = R"(    esac
} &&
    complete -F _plax_tool plax-tool
)";

static void WriteTake(std::ostream &out, const std::vector<ListedOption> &options)
{
    std::string letters;
    for (const ListedOption &option : options) {
        if (!option.argumentName.empty()) {
            out << "        --" << option.longName << ") awaiting=" << option.letter << " ;;\n";
            letters += option.letter;
        }
    }
    out << "        --*) ;;\n"
           "        -?*)\n"
           "            tail=${1#\"${1%%["
        << letters << "]*}\"}\n";
}

static void WriteValues(std::ostream &out, const ListedOption &option)
{
    if (option.values.front().meaning.empty()) {
        out << "_plax_tool_words '";
        for (const Value &value : option.values) {
            out << (&value == &option.values.front() ? "" : " ") << value.text;
        }
        out << '\'';
        return;
    }
    out << "_plax_tool_numbers";
    for (const Value &value : option.values) {
        out << ' ' << Quote(Join({value.text, "  ", value.meaning}));
    }
}

static void WriteArguments(std::ostream &out, const std::vector<ListedOption> &options)
{
    for (const ListedOption &option : options) {
        if (option.offer == Offer::Nothing) {
            continue;
        }
        out << "        " << option.letter << ") ";
        if (option.offer == Offer::Files) {
            out << "_plax_tool_files";
        } else {
            WriteValues(out, option);
        }
        out << "; return ;;\n";
    }
}

static void WriteCommandWords(std::ostream &out)
{
    out << "        0:*) _plax_tool_words '";
    const char *separator = "";
    for (const ListedCommand &command : ListCommands()) {
        out << separator << command.word;
        separator = " ";
    }
    out << "' ;;\n";
}

static void WriteFollowingWords(std::ostream &out)
{
    for (const FollowingWords &following : ListFollowingWords()) {
        out << "        [1-" << following.countMax << "]:" << following.command << ") _plax_tool_words '";
        const char *separator = "";
        for (const std::string_view word : following.words) {
            out << separator << word;
            separator = " ";
        }
        out << "' ;;\n";
    }
}

void WriteBash(std::ostream &out)
{
    const std::vector<ListedOption> options = ListOptions();
    out << kHead;
    WriteTake(out, options);
    out << kTakeTail;
    WriteArguments(out, options);
    out << kArgumentsTail;
    for (const ListedOption &option : options) {
        out << '-' << option.letter << " --" << option.longName << (&option == &options.back() ? "" : " ");
    }
    out << kOptionsTail;
    WriteCommandWords(out);
    WriteFollowingWords(out);
    out << kTail;
}
