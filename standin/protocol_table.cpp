// The rows, in the order of the codes.

#include "protocol_table.h"

namespace standin {

// clang-format off
static constexpr CommandRow kRows[] = {
    {1, "stats", ReplyClass::Streamed, false, kNoPayload, "objects: 1204\nwork items: 3 active, 17 queued\n"},
    {2, "crawler", ReplyClass::Checked, false, kUuidTextPayload, "queued", kUuidOrAll},
    {3, "fitness-config-get", ReplyClass::Printed, false, kNoPayload, R"({"fullnessWeight": 0.7, "loadWeight": 0.3})"},
    {4, "fitness-config-set", ReplyClass::Checked, false, kJsonPayload, "stored", "json"},
    {5, "fitness-config-reset", ReplyClass::Checked, false, kNoPayload, "reset"},
    {6, "fitness-stats-get", ReplyClass::Printed, false, kNoPayload, "disk 5b2f9c1e-44d0-4a37-9e8b-c3f1a06d7725: 0.82"},
    {7, "log-level", ReplyClass::Checked, false, kLogLevelPayload, "set"},
    {8, "fix-object-immediate", ReplyClass::Checked, false, kUuidTextPayload, "queued"},
    {9, "get-object-last-operation", ReplyClass::Printed, false, kUuidTextPayload, "REPAIR, completed 12 minutes ago"},
    {10, "start-proactive-rebalance", ReplyClass::Checked, false, kProactiveRebalancePayload, "started"},
    {11, "stop-proactive-rebalance", ReplyClass::Checked, false, kNoPayload, "stopped"},
    {12, "info-proactive-rebalance", ReplyClass::Printed, false, kNoPayload, "proactive rebalance: not running"},
    {13, "fix-concats", ReplyClass::Checked, false, kNoPayload, "0 concats to fix"},
    {14, "info-rebalance", ReplyClass::Printed, false, kUuidTextPayload, "bytes to move: 0", kUuidOrAll},
    {15, "resources-to-fix-unhealthy-objects", ReplyClass::Printed, false, kOptionalUuidTextPayload,
     "unhealthy objects: 0"},
    {16, "what-if-entity-decom", ReplyClass::Printed, false, kWhatIfEntityDecomPayload,
     "feasible: yes\nbytes to move: 0", kUuidOrAll},
    {17, "what-if-upgrade", ReplyClass::Printed, false, kWhatIfUpgradePayload, "feasible: yes"},
    {18, "what-if-cancel", ReplyClass::Checked, false, kNoPayload, "cancelled"},
    {19, "force-reconfigure-the-object", ReplyClass::Checked, false, kForceReconfigurePayload, "applied"},
    {20, "update-plaxdb", ReplyClass::Checked, false, kFilePathPayload, "updated"},
    {21, "replace-plaxdb", ReplyClass::Checked, false, kFilePathPayload, "replaced"},
    {22, "enable-plax-recovery-mode", ReplyClass::Checked, false, kRecoveryModePayload, "enabled", "recoveryMode"},
    {23, "get-obj-decom-state", ReplyClass::Printed, false, kUuidTextPayload, "decom state: none", kUuidOrAll},
    {24, "enable-workitem", ReplyClass::Checked, false, kWorkItemPayload, "enabled"},
    {25, "disable-workitem", ReplyClass::Checked, false, kWorkItemPayload, "disabled"},
    {26, "get-obj-crawler-state", ReplyClass::Printed, true, kCrawlerStatePayload, "idle, last visit 41 s ago", "uuid"},
    {27, "pause-decom-state-progress", ReplyClass::Checked, false, kNoPayload, "paused"},
    {28, "resume-decom-state-progress", ReplyClass::Checked, false, kNoPayload, "resumed"},
    {29, "start-decom-state-heartbeat", ReplyClass::Checked, false, kNoPayload, "started"},
    {30, "pause-failed-delta-entry-processing", ReplyClass::None, false, kNoPayload, ""},
    {31, "block-cdb-cb", ReplyClass::None, false, kCallbackBlockPayload, ""},
    {32, "refresh-config-opts", ReplyClass::None, false, kNoPayload, ""},
    {33, "component-manual-move", ReplyClass::Checked, false, kManualMovePayload, "queued", "uuid"},
    {34, "set-global-exclusion-list", ReplyClass::Checked, false, kGlobalExclusionPayload, "set", "exclusionList"},
};
// clang-format on

static constexpr bool RowsFollowCodes()
{
    uint32_t code = 0;
    for (const CommandRow &row : kRows) {
        if (row.code != ++code) {
            return false;
        }
    }
    return true;
}
static_assert(RowsFollowCodes(), "a row is found by its code");

std::span<const CommandRow> AllCommands()
{
    return kRows;
}

const CommandRow *FindCommand(uint32_t code)
{
    return code >= 1 && code <= std::size(kRows) ? &kRows[code - 1] : nullptr;
}

ReplyClass ReplyClassOf(const DecodedRequest &request)
{
    if (request.command == nullptr) {
        return ReplyClass::Checked;
    }
    return request.allObjects ? ReplyClass::Streamed : request.command->replyClass;
}

} // namespace standin
