// Option parsing: getopt_long finds the options, and each option's row has the handler that stores it.

#include "options.h"

#include "option_table.h"

#include <array>

static consteval auto MakeLongOptions()
{
    std::array<option, std::size(kOptions) + 1> longOptions{}; // the last entry stays zero: the end of the table
    for (size_t i = 0; i < std::size(kOptions); ++i) {
        longOptions[i] = {kOptions[i].longName, *kOptions[i].argumentName != '\0' ? required_argument : no_argument,
                          nullptr, kOptions[i].letter};
    }
    return longOptions;
}

ParseOutcome ParseOptions(int argumentCount, char **arguments, CommandSettings *settings)
{
    static constexpr auto kLongOptions = MakeLongOptions();
    int letter = 0;
    while ((letter = getopt_long(argumentCount, arguments, kShortOptions, kLongOptions.data(),
                                 &settings->longOptionIndex)) != -1) {
        const OptionRow *row = FindOption(letter);
        if (row == nullptr) {
            return ParseOutcome::Failed; // getopt_long has printed a message
        }
        const ParseOutcome outcome = row->handler(optarg, settings);
        if (outcome != ParseOutcome::Parsed) {
            return outcome;
        }
    }
    return ParseOutcome::Parsed;
}
