// The option table, in getopt_long's order. The order is behaviour: the word test of two commands uses the index of the
// last long option.
#ifndef PLAX_CLI_OPTION_TABLE_H
#define PLAX_CLI_OPTION_TABLE_H

#include "option_handlers.h"
#include "options.h"

#include <iterator>
#include <string_view>

// clang-format off
inline constexpr OptionRow kOptions[] = {
    {"help", 'h', "", RequestHelp, "   -h/--help:                     ",
     "Print this help text", nullptr},
    {"output-path", 'o', "str", SetOutputPath, "   -o/--output-path=<str>:        ",
     "Write output to a file", kFileNames},
    {"socket-path", 's', "str", SetSocketPath, "   -s/--socket-path=<str>:        ",
     "Alternative Unix Domain Socket path", kFileNames},
    {"timeout", 't', "int", CheckTimeout, "   -t/--timeout=<int>:            ",
     "Max time for wait (0 for infinite wait)", nullptr},
    {"uuid", 'u', "uuid", SetUuid, "   -u/--uuid=<uuid>:              ",
     "Entry uuid", nullptr},
    {"uuid-list", 'l', "uuid,uuid", SetUuidList, "   -l/--uuid-list=<uuid,uuid>:    ",
     "List of uuids (comma separated)", nullptr},
    {"json", 'j', "json", SetJson, "   -j/--json=<json>:              ",
     "Stringified JSON object", nullptr},
    {"file-path", 'f', "str", SetFilePath, "   -f/--file-path=<str>:          ",
     "File with new configuration for object", kFileNames},
    {"decom-mode", 'd', "int", SetDecomMode, "   -d/--decom-mode=<int>:         ",
     "Entity decomMode (0:noAction, 1:ensureAcces, 2:evacAllData) ",
     "0:noAction\n1:ensureAcces\n2:evacAllData"},
    {"ensure-durability", 'e', "", SetEnsureDurability, "   -e/--ensure-durability         ",
     "ensure data durability in ensure access decom", nullptr},
    {"reason", 'r', "int", SetReason, "   -r/--reason=<int>:             ",
     "Reason for what-if-upgrade (0:none, 1:disable dedup, 2:enable encryption, 3:disable dedup and enforce "
     "encryption)",
     "0:none\n1:disable dedup\n2:enable encryption\n3:disable dedup and enforce encryption"},
    {"work-item", 'i', "str", SetWorkItem, "   -i/--work-item=<str>:          ",
     "Work item type name (example: PLACEMENT, MOVE, REACTIVE_REBALANCE, DECOM, REPAIR, CHANGE, COMPLIANCE, CONCAT "
     "...)", kWorkItemNames},
    {"recovery-mode", 'm', "int", SetRecoveryMode, "   -m/--recovery-mode=<int>:      ",
     "Recovery mode (1: REPAIR, 2: REBALANCE, 3: COMPLIANCE, 4: POLICY, 5: CONCAT, 6: DELTA, 7: ALL, except DELTA)",
     "1:REPAIR\n2:REBALANCE\n3:COMPLIANCE\n4:POLICY\n5:CONCAT\n6:DELTA\n7:ALL, except DELTA"},
    {"wipe-disk", 'w', "", SetWipeDisk, "   -w/--wipe-disk                 ",
     "Wipe disk in what-if-upgrade ", nullptr},
    {"all", 'a', "", SetAll, "   -a/--all:                      ",
     "Print crawler states of all objects owned by this node", nullptr},
    {"destination-list", 'n', "uuid,uuid", SetDestinationList, "   -n/--destination-list=<uuid,uuid>: ",
     "List of uuids for destination disk/dg/host/FD", nullptr},
    {"exclusion-list", 'x', "uuid,uuid", SetExclusionList, "   -x/--exclusion-list=<uuid,uuid>  : ",
     "List of uuids for exclusion disk/dg/host/FD", nullptr},
    {"exclusion-mode", 'X', "int", SetExclusionMode, "   -X/--exclusion-mode=<int>:     ",
     "Exclusion mode (1: ignoreForWitness, 2: ignoreForNewPlacement, 3: ignoreForWitnessAndNewPlacement)",
     "0:applicable to all new components\n1:ignoreForWitness\n2:ignoreForNewPlacement\n"
     "3:ignoreForWitnessAndNewPlacement"},
};
// clang-format on

inline constexpr const char *kShortOptions = "ho:s:t:u:l:j:f:d:r:n:x:X:i:m:wae";

// The order in which the help text lists the options.
inline constexpr std::string_view kOptionHelpOrder = "hostulrdewjfimanxX";

// Returns the row of the option called `letter`, or null when there is none.
constexpr const OptionRow *FindOption(int letter)
{
    for (const OptionRow &row : kOptions) {
        if (row.letter == letter) {
            return &row;
        }
    }
    return nullptr;
}

consteval bool ShortOptionsFollowTable()
{
    constexpr std::string_view kShort = kShortOptions;
    size_t argumentsRequired = 0;
    for (const OptionRow &row : kOptions) {
        const size_t place = kShort.find(row.letter);
        if (place == kShort.npos) {
            return false;
        }
        const bool hasColon = place + 1 < kShort.size() && kShort[place + 1] == ':';
        if (hasColon != (*row.argumentName != '\0')) {
            return false;
        }
        argumentsRequired += hasColon;
    }
    return kShort.size() == std::size(kOptions) + argumentsRequired;
}
static_assert(ShortOptionsFollowTable());

consteval bool HelpOrderFollowsTable()
{
    for (const OptionRow &row : kOptions) {
        if (kOptionHelpOrder.find(row.letter) == kOptionHelpOrder.npos) {
            return false;
        }
    }
    return kOptionHelpOrder.size() == std::size(kOptions);
}
static_assert(HelpOrderFollowsTable());

#endif
