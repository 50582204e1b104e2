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
    {"help", 'h', no_argument, RequestHelp,
     "   -h/--help:                     Print this help text"},
    {"output-path", 'o', required_argument, SetOutputPath,
     "   -o/--output-path=<str>:        Write output to a file"},
    {"socket-path", 's', required_argument, SetSocketPath,
     "   -s/--socket-path=<str>:        Alternative Unix Domain Socket path"},
    {"timeout", 't', required_argument, CheckTimeout,
     "   -t/--timeout=<int>:            Max time for wait (0 for infinite wait)"},
    {"uuid", 'u', required_argument, SetUuid,
     "   -u/--uuid=<uuid>:              Entry uuid"},
    {"uuid-list", 'l', required_argument, SetUuidList,
     "   -l/--uuid-list=<uuid,uuid>:    List of uuids (comma separated)"},
    {"json", 'j', required_argument, SetJson,
     "   -j/--json=<json>:              Stringified JSON object"},
    {"file-path", 'f', required_argument, SetFilePath,
     "   -f/--file-path=<str>:          File with new configuration for object"},
    {"decom-mode", 'd', required_argument, SetDecomMode,
     "   -d/--decom-mode=<int>:         Entity decomMode (0:noAction, 1:ensureAcces, 2:evacAllData) "},
    {"ensure-durability", 'e', no_argument, SetEnsureDurability,
     "   -e/--ensure-durability         ensure data durability in ensure access decom"},
    {"reason", 'r', required_argument, SetReason,
     "   -r/--reason=<int>:             Reason for what-if-upgrade (0:none, 1:disable dedup, 2:enable encryption, "
     "3:disable dedup and enforce encryption)"},
    {"work-item", 'i', required_argument, SetWorkItem,
     "   -i/--work-item=<str>:          Work item type name (example: PLACEMENT, MOVE, REACTIVE_REBALANCE, DECOM, "
     "REPAIR, CHANGE, COMPLIANCE, CONCAT ...)"},
    {"recovery-mode", 'm', required_argument, SetRecoveryMode,
     "   -m/--recovery-mode=<int>:      Recovery mode (1: REPAIR, 2: REBALANCE, 3: COMPLIANCE, 4: POLICY, 5: CONCAT, "
     "6: DELTA, 7: ALL, except DELTA)"},
    {"wipe-disk", 'w', no_argument, SetWipeDisk,
     "   -w/--wipe-disk                 Wipe disk in what-if-upgrade "},
    {"all", 'a', no_argument, SetAll,
     "   -a/--all:                      Print crawler states of all objects owned by this node"},
    {"destination-list", 'n', required_argument, SetDestinationList,
     "   -n/--destination-list=<uuid,uuid>: List of uuids for destination disk/dg/host/FD"},
    {"exclusion-list", 'x', required_argument, SetExclusionList,
     "   -x/--exclusion-list=<uuid,uuid>  : List of uuids for exclusion disk/dg/host/FD"},
    {"exclusion-mode", 'X', required_argument, SetExclusionMode,
     "   -X/--exclusion-mode=<int>:     Exclusion mode (1: ignoreForWitness, 2: ignoreForNewPlacement, 3: "
     "ignoreForWitnessAndNewPlacement)"},
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
        if (hasColon != (row.argumentKind == required_argument)) {
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
