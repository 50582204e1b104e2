// The command line's options: their table, and the parser that turns them into CommandSettings.
#ifndef PLAX_CLI_OPTIONS_H
#define PLAX_CLI_OPTIONS_H

#include "command_settings.h"

#include <getopt.h>

#include <cstdint>

enum class ParseOutcome : uint8_t {
    Parsed,
    HelpRequested, // -h: the help text is to be shown, and the run is a success
    Failed,        // the message is out, the help text is to follow
};

// Takes one option's argument (null if it has none) into the settings. Returns Parsed to go on with the next option.
using OptionHandler = ParseOutcome (*)(const char *argument, CommandSettings *settings);

struct OptionRow {
    const char *longName;
    char letter;
    int argumentKind; // no_argument or required_argument
    OptionHandler handler;
    const char *help; // the option's line of the help text
};

// Parses the options of the argument vector in their order up to the first that fails, which it reports, and moves them
// to the vector's front: the words that are no options follow them from `optind` on. `settings` must hold the defaults;
// after a failure it holds what the options before had set, and is of no further use.
ParseOutcome ParseOptions(int argumentCount, char **arguments, CommandSettings *settings);

#endif
