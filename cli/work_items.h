// The types of work items that can be enabled and disabled.
#ifndef PLAX_CLI_WORK_ITEMS_H
#define PLAX_CLI_WORK_ITEMS_H

#include <cstdint>
#include <string_view>

struct WorkItem {
    std::string_view name;
    uint32_t number;
};

// No name has the number 4: the daemon reads these numbers, so they are not renumbered. (test every_work_item)
inline constexpr WorkItem kWorkItems[] = {
    {"PLACEMENT", 1},
    {"DECOM_CLEANUP", 2},
    {"CLEANUP", 3},
    {"VOTES_REBALANCE", 5},
    {"FIX_FD_IDS", 6},
    {"MOVE", 7},
    {"REACTIVE_REBALANCE", 8},
    {"DECOM", 9},
    {"FORCE_REPAIR", 10},
    {"FORCE_RECONFIGURE", 11},
    {"RECOVERY", 12},
    {"REPAIR", 13},
    {"CHANGE", 14},
    {"CHANGE_PENDING", 15},
    {"COMPLIANCE", 16},
    {"CONCAT", 17},
    {"PROACTIVE_REBALANCE", 18},
    {"DELTA_DECOM", 19},
    {"FORMAT_CHANGE", 20},
    {"UNPLANNED_DELTA", 21},
    {"MANUAL_MOVE", 22},
};

#endif
