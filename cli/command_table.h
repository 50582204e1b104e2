// The command table. A row holds everything about a command; nothing else in the tool depends on a command's code.
#ifndef PLAX_CLI_COMMAND_TABLE_H
#define PLAX_CLI_COMMAND_TABLE_H

#include "command_code.h"
#include "reply.h"
#include "rules.h"
#include "senders.h"

#include <ctime>
#include <string_view>

struct CommandRow {
    CommandCode code;
    const char *word;
    const char *help; // null: the command works but is not advertised
    time_t receiveTimeoutSec;
    ReplyClass replyClass;
    const char *(*rule)(const Invocation &); // null: unchecked
    QRT_ReturnStatus (*send)(const Invocation &);
};

inline constexpr time_t kReceiveTimeoutSec = 20;
inline constexpr time_t kPlanningTimeoutSec = 1800;
inline constexpr time_t kUpgradePlanningTimeoutSec = 7200;

// clang-format off
inline constexpr CommandRow kCommands[] = {
    {CommandCode{1}, "stats", "Retrieve PLAX stats",
     kReceiveTimeoutSec, ReplyClass::Streamed, nullptr, SendHeaderOnly},
    {CommandCode{2}, "crawler", "Queue crawler run on an object specified by -u/--uuid",
     kReceiveTimeoutSec, ReplyClass::Checked, RequireUuidOrAll, SendUuidText},
    {CommandCode{3}, "fitness-config-get", nullptr,
     kReceiveTimeoutSec, ReplyClass::Printed, nullptr, SendHeaderOnly},
    {CommandCode{4}, "fitness-config-set", nullptr,
     kReceiveTimeoutSec, ReplyClass::Checked, RequireJson, SendJson},
    {CommandCode{5}, "fitness-config-reset", nullptr,
     kReceiveTimeoutSec, ReplyClass::Checked, nullptr, SendHeaderOnly},
    {CommandCode{6}, "fitness-stats-get", "Get current fitness stats for each disk",
     kReceiveTimeoutSec, ReplyClass::Printed, nullptr, SendHeaderOnly},
    {CommandCode{7}, "log-level", "Set plaxd log level.",
     kReceiveTimeoutSec, ReplyClass::Checked, RequireLogLevel, SendLogLevel},
    {CommandCode{8}, "fix-object-immediate", "Fix absent and degraded components in object immediately",
     kReceiveTimeoutSec, ReplyClass::Checked, nullptr, SendUuidText},
    {CommandCode{9}, "get-object-last-operation", nullptr,
     kReceiveTimeoutSec, ReplyClass::Printed, nullptr, SendUuidText},
    {CommandCode{10}, "start-proactive-rebalance",
     "Start proactive rebalance. Usage: start-proactive-rebalance [time_span (sec) [variance threshold (0-1) "
     "[time threshold (sec) [rate threshold (MB/hr)]]]]. The word default may be also be used instead of a "
     "numeric value. Example: start-proactive-rebalance 3600 0.3 default 1024",
     kReceiveTimeoutSec, ReplyClass::Checked, nullptr, SendProactiveRebalance},
    {CommandCode{11}, "stop-proactive-rebalance", "Stop proactive rebalance",
     kReceiveTimeoutSec, ReplyClass::Checked, nullptr, SendHeaderOnly},
    {CommandCode{12}, "info-proactive-rebalance", "Get the info of proactive rebalance",
     kReceiveTimeoutSec, ReplyClass::Printed, nullptr, SendHeaderOnly},
    {CommandCode{13}, "fix-concats", "Fix concats for all objects owned by the node now",
     kReceiveTimeoutSec, ReplyClass::Checked, nullptr, SendHeaderOnly},
    {CommandCode{14}, "info-rebalance", "Get the info of rebalance for a disk specified by -u/--uuid",
     kReceiveTimeoutSec, ReplyClass::Printed, RequireUuidOrAll, SendUuidText},
    {CommandCode{15}, "resources-to-fix-unhealthy-objects", "Resources required to fix unhealthy objects",
     kPlanningTimeoutSec, ReplyClass::Printed, nullptr, SendUuidText},
    {CommandCode{16}, "what-if-entity-decom", "Resources needed for entity decommissioning.",
     kPlanningTimeoutSec, ReplyClass::Printed, RequireUuidOrAll, SendWhatIfEntityDecom},
    {CommandCode{17}, "what-if-upgrade", "Resources needed for host or disk upgrade",
     kUpgradePlanningTimeoutSec, ReplyClass::Printed, RequireUuidList, SendWhatIfUpgrade},
    {CommandCode{18}, "what-if-cancel", "Cancel on-going what-if operation",
     kReceiveTimeoutSec, ReplyClass::Checked, nullptr, SendHeaderOnly},
    {CommandCode{19}, "force-reconfigure-the-object", "Force apply the new object configuration to the object",
     kReceiveTimeoutSec, ReplyClass::Checked, nullptr, SendForceReconfigure},
    {CommandCode{20}, "update-plaxdb", "Update nodes/disks/DOM_objects in plaxdb",
     kReceiveTimeoutSec, ReplyClass::Checked, nullptr, SendFilePath},
    {CommandCode{21}, "replace-plaxdb", "Update nodes/disks/DOM_objects in plaxdb, delete not present objects",
     kReceiveTimeoutSec, ReplyClass::Checked, nullptr, SendFilePath},
    {CommandCode{22}, "enable-plax-recovery-mode", "Put PLAX in recovery mode",
     kReceiveTimeoutSec, ReplyClass::Checked, RequireRecoveryModeOrUuid, SendRecoveryMode},
    {CommandCode{23}, "get-obj-decom-state", nullptr,
     kReceiveTimeoutSec, ReplyClass::Printed, RequireUuidOrAll, SendUuidText},
    {CommandCode{24}, "enable-workitem", "Enable work item type specified by -i/--work-item",
     kReceiveTimeoutSec, ReplyClass::Checked, RequireWorkItem, SendWorkItem},
    {CommandCode{25}, "disable-workitem", "Disable work item type specified by -i/--work-item",
     kReceiveTimeoutSec, ReplyClass::Checked, RequireWorkItem, SendWorkItem},
    {CommandCode{26}, "get-obj-crawler-state",
     "Get crawler state of an object specified by -u/--uuid OR Get crawler stats of all objects with -a/--all",
     kReceiveTimeoutSec, ReplyClass::StreamedForAllObjects, RequireUuidOrAll, SendCrawlerState},
    {CommandCode{27}, "pause-decom-state-progress", "pause progressing the decom state machine",
     kReceiveTimeoutSec, ReplyClass::Checked, nullptr, SendHeaderOnly},
    {CommandCode{28}, "resume-decom-state-progress", "resume progressing the decom state machine",
     kReceiveTimeoutSec, ReplyClass::Checked, nullptr, SendHeaderOnly},
    {CommandCode{29}, "start-decom-state-heartbeat", "start the heartbeat of state in decom state machine",
     kReceiveTimeoutSec, ReplyClass::Checked, nullptr, SendHeaderOnly},
    {CommandCode{30}, "pause-failed-delta-entry-processing",
     "pause the controller PLAX just before it processes a failed delta entry",
     kReceiveTimeoutSec, ReplyClass::None, nullptr, SendHeaderOnly},
    {CommandCode{31}, "block-cdb-cb", "block certain cdb callbacks for testing",
     kReceiveTimeoutSec, ReplyClass::None, RequireCallbackWords, SendBlockCdbCbCommand},
    {CommandCode{32}, "refresh-config-opts", "Refresh advanced config options",
     kReceiveTimeoutSec, ReplyClass::None, nullptr, SendHeaderOnly},
    {CommandCode{33}, "component-manual-move", "Move the component based on given destination list or exclusion list",
     kReceiveTimeoutSec, ReplyClass::Checked, RequireMoveTarget, SendComponentManualMove},
    {CommandCode{34}, "set-global-exclusion-list",
     "Set global exclusion list so that none of new component goes to excluded disk/dg/host/fd as per exclusion "
     "mode. By default exclusion mode is 0 which means exclusion list will be applicable to all new components. "
     "If exclusion mode is set to 1, exclusionlist will be ignored for witnesses and if set to 2, exclusion list "
     "will be ignored for new object placements and if 3, will be ignored for both.",
     kReceiveTimeoutSec, ReplyClass::Checked, RequireExclusionList, SendGlobalExclusionList},
};
// clang-format on

consteval bool RowsFollowCodes()
{
    uint32_t code = 0;
    for (const CommandRow &row : kCommands) {
        if (row.code != CommandCode{++code}) {
            return false;
        }
    }
    return true;
}
static_assert(RowsFollowCodes(), "codes are dense from 1: the daemon dispatches on them");

// Returns the row of the command `word`, compared case-sensitively, or null if there is none.
constexpr const CommandRow *FindCommand(std::string_view word)
{
    for (const CommandRow &row : kCommands) {
        if (row.word == word) {
            return &row;
        }
    }
    return nullptr;
}

#endif
