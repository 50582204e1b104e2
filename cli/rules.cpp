// The argument rules. They are few: the daemon judges most requests.

#include "rules.h"

#include <climits>
#include <cstdlib>

static constexpr const char *kUuidMissing = "UUID must be provided (specify with --uuid)\n";

static const char *FailUnless(bool met, const char *message)
{
    return met ? nullptr : message;
}

// Tests the argument whose position is the table index of the last long option, or 1 without one. That is rarely the
// word that is sent, but changing it would change which command lines are accepted. (test word_test)
// A position beyond the end of the vector passes without a read.
static bool PassesWordTest(const Invocation &invocation)
{
    const int index = invocation.settings.longOptionIndex;
    if (index >= invocation.argumentCount) {
        return index != invocation.argumentCount;
    }
    return strtoul(invocation.arguments[index], nullptr, 10) != ULONG_MAX;
}

const char *RequireUuidOrAll(const Invocation &invocation)
{
    return FailUnless(invocation.settings.uuidGiven || invocation.settings.all != 0, kUuidMissing);
}

const char *RequireJson(const Invocation &invocation)
{
    return FailUnless(invocation.settings.jsonGiven,
                      "Fitness config must be provided (specify with --json <json object>)\n");
}

const char *RequireLogLevel(const Invocation &invocation)
{
    return FailUnless(PassesWordTest(invocation), "Log level must be specified. E.g.: plax-tool log-level 2\n");
}

const char *RequireUuidList(const Invocation &invocation)
{
    return FailUnless(invocation.settings.uuidListGiven,
                      "UUID's must be provided, separated by comma (specify with --uuid-list)\n");
}

const char *RequireRecoveryModeOrUuid(const Invocation &invocation)
{
    return FailUnless(invocation.settings.uuidOrModeCount != 0,
                      "Either recovery mode(specify with -m/--recovery-Mode) or uuid(specify with -u/--uuid) must be "
                      "provided\n");
}

const char *RequireWorkItem(const Invocation &invocation)
{
    return FailUnless(invocation.settings.workItemType != 0,
                      "work-item type must be provided (specify with -i/--work-item)\n");
}

const char *RequireCallbackWords(const Invocation &invocation)
{
    return FailUnless(PassesWordTest(invocation), "Callback entry and event type must be provided.\n");
}

const char *RequireMoveTarget(const Invocation &invocation)
{
    const CommandSettings &settings = invocation.settings;
    if (!settings.uuidGiven) {
        return kUuidMissing;
    }
    if (settings.destinationListGiven == settings.exclusionListGiven) {
        return "Either destination list(specify with -n/--destination-list) or exclusion list (specify with "
               "-x/--exclusion-list) should be provided \n";
    }
    const char *given = settings.destinationListGiven ? settings.destinationList : settings.exclusionList;
    return FailUnless(*given != '\0', "Empty destination or exclusion list not allowed.");
}

const char *RequireExclusionList(const Invocation &invocation)
{
    return FailUnless(invocation.settings.exclusionListGiven,
                      "Exclusion list must be provided (specify with -x/--exclusion-list)");
}
