// Parsing the command line's options into CommandSettings.
#ifndef PLAX_CLI_OPTIONS_H
#define PLAX_CLI_OPTIONS_H

#include "command_settings.h"

#include <getopt.h>

#include <cstdint>

enum class ParseOutcome : uint8_t {
    Parsed,
    HelpRequested, // -h: print the help text and exit 0
    Failed,        // a message was printed; the help text is to follow
};

// Stores an option's argument (null if it has none) in the settings. Parsing goes on if the result is Parsed.
using OptionHandler = ParseOutcome (*)(const char *argument, CommandSettings *settings);

struct OptionRow {
    const char *longName;
    char letter;
    const char *argumentName; // empty: the option takes no argument
    OptionHandler handler;
    const char *synopsis; // with `help`, the option's line of the help text
    const char *help;
    const char *offers; // what completions offer for the argument: kFileNames, kWorkItemNames, or lines "value:meaning"
};
inline constexpr const char *kFileNames = "file names";
inline constexpr const char *kWorkItemNames = "work items";

// Parses the options in command-line order into `settings`, which must hold the defaults, and permutes the vector so
// that the operands start at `optind`. Stops at the first option that fails, after printing its message; the settings
// must then not be used.
ParseOutcome ParseOptions(int argumentCount, char **arguments, CommandSettings *settings);

#endif
