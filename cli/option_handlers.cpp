// The option handlers: each stores its option's argument in the settings.

#include "option_handlers.h"

#include "platform_support.h"
#include "work_items.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

static constexpr uint32_t kRecoveryModeMax = 7;
static constexpr uint32_t kExclusionModeMax = 3;
// One byte of the capacity stays unused, so these lists hold one entry less than that of -l.
static constexpr size_t kEntityListLengthMax = kUuidListCapacity - 2;

// Stores the low 32 bits of the decimal number at the start of `text`, or 0 if there is none. If the number does not
// fit an unsigned long, returns false and leaves *number unchanged.
static bool ParseNumber(const char *text, uint32_t *number)
{
    errno = 0;
    const unsigned long value = strtoul(text, nullptr, 10);
    if (errno != 0) {
        return false;
    }
    *number = static_cast<uint32_t>(value);
    return true;
}

static ParseOutcome FailNumber(const char *what, const char *argument)
{
    Warning("Failed to parse %s: %s\n", what, argument);
    return ParseOutcome::Failed;
}

static ParseOutcome StoreNumber(const char *what, const char *argument, uint32_t *number)
{
    return ParseNumber(argument, number) ? ParseOutcome::Parsed : FailNumber(what, argument);
}

// Only the length of a list is checked. The daemon judges its content.
static bool IsWholeEntries(size_t listLength)
{
    return (listLength + 1) % kUuidListEntrySize == 0;
}

static ParseOutcome FailList(const char *list)
{
    Warning("Invalid UUID: %s\n", list);
    return ParseOutcome::Failed;
}

static ParseOutcome StoreEntityList(const char *list, const char *tooLong, char *buffer, bool *given)
{
    const size_t length = strlen(list);
    if (length != 0 && !IsWholeEntries(length)) {
        return FailList(list);
    }
    if (length > kEntityListLengthMax) {
        Warning("%s", tooLong);
        return ParseOutcome::Failed;
    }
    memcpy(buffer, list, length + 1);
    *given = true;
    return ParseOutcome::Parsed;
}

ParseOutcome RequestHelp(const char * /*argument*/, CommandSettings * /*settings*/)
{
    return ParseOutcome::HelpRequested;
}

ParseOutcome SetOutputPath(const char *argument, CommandSettings *settings)
{
    settings->outputPath = argument;
    return ParseOutcome::Parsed;
}

ParseOutcome SetSocketPath(const char *argument, CommandSettings *settings)
{
    settings->socketPath = argument;
    return ParseOutcome::Parsed;
}

// The number is checked and not used: each command has a fixed receive timeout. (test timeout_changes_nothing)
ParseOutcome CheckTimeout(const char *argument, CommandSettings * /*settings*/)
{
    uint32_t timeout = 0;
    return StoreNumber("wait timeout", argument, &timeout);
}

// A UUID may end after its third group; the remaining bytes keep their value.
ParseOutcome SetUuid(const char *argument, CommandSettings *settings)
{
    static constexpr int kConversionsMin = 8;
    uint8_t *const b = settings->uuid.bytes;
    const int conversions = sscanf(argument,
                                   "%02hhx%02hhx%02hhx%02hhx-%02hhx%02hhx-%02hhx%02hhx-%02hhx%02hhx-"
                                   "%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx",
                                   &b[0], &b[1], &b[2], &b[3], &b[4], &b[5], &b[6], &b[7], &b[8], &b[9], &b[10], &b[11],
                                   &b[12], &b[13], &b[14], &b[15]);
    if (conversions < kConversionsMin) {
        Warning("Failed to parse UUID: %s, length=%d\n", argument, conversions);
        return ParseOutcome::Failed;
    }
    settings->uuidGiven = true;
    ++settings->uuidOrModeCount;
    return ParseOutcome::Parsed;
}

ParseOutcome SetUuidList(const char *argument, CommandSettings *settings)
{
    const size_t length = strlen(argument);
    if (!IsWholeEntries(length)) {
        return FailList(argument);
    }
    if (length >= kUuidListCapacity) {
        // Abort, since a plan for a truncated list would look like a plan for the whole one.
        Warning("UUID list is longer than max limit\n");
        abort();
    }
    settings->uuidList = argument;
    settings->uuidListGiven = true;
    return ParseOutcome::Parsed;
}

ParseOutcome SetJson(const char *argument, CommandSettings *settings)
{
    settings->json = UtilSafeStrdup0(argument);
    settings->jsonGiven = true;
    return ParseOutcome::Parsed;
}

// No terminator is written: the field starts out zero, and after a longer path its end remains.
// (test second_shorter_file_path_keeps_the_tail)
ParseOutcome SetFilePath(const char *argument, CommandSettings *settings)
{
    const size_t length = strlen(argument);
    if (length > kFilePathLengthMax) {
        Warning("File path is longer than the max path length");
        return ParseOutcome::Failed;
    }
    memcpy(settings->filePath, argument, length);
    return ParseOutcome::Parsed;
}

ParseOutcome SetDecomMode(const char *argument, CommandSettings *settings)
{
    return StoreNumber("decomMode", argument, &settings->decomMode);
}

ParseOutcome SetEnsureDurability(const char * /*argument*/, CommandSettings *settings)
{
    settings->ensureDurability = 1;
    return ParseOutcome::Parsed;
}

ParseOutcome SetReason(const char *argument, CommandSettings *settings)
{
    return StoreNumber("reason", argument, &settings->reason);
}

ParseOutcome SetWorkItem(const char *argument, CommandSettings *settings)
{
    for (const WorkItem &item : kWorkItems) {
        if (item.name == argument) {
            settings->workItemType = item.number;
            return ParseOutcome::Parsed;
        }
    }
    Warning("Invalid work-item type name: %s\n", argument);
    return ParseOutcome::Failed;
}

ParseOutcome SetRecoveryMode(const char *argument, CommandSettings *settings)
{
    if (!ParseNumber(argument, &settings->recoveryMode) || settings->recoveryMode > kRecoveryModeMax) {
        return FailNumber("recoveryMode", argument);
    }
    ++settings->uuidOrModeCount;
    return ParseOutcome::Parsed;
}

ParseOutcome SetWipeDisk(const char * /*argument*/, CommandSettings *settings)
{
    settings->wipeDisk = 1;
    return ParseOutcome::Parsed;
}

ParseOutcome SetAll(const char * /*argument*/, CommandSettings *settings)
{
    settings->all = 1;
    return ParseOutcome::Parsed;
}

ParseOutcome SetDestinationList(const char *argument, CommandSettings *settings)
{
    return StoreEntityList(argument, "Destination list is longer than max limit\n", settings->destinationList,
                           &settings->destinationListGiven);
}

ParseOutcome SetExclusionList(const char *argument, CommandSettings *settings)
{
    return StoreEntityList(argument, "Exclusion list is longer than max limit\n", settings->exclusionList,
                           &settings->exclusionListGiven);
}

ParseOutcome SetExclusionMode(const char *argument, CommandSettings *settings)
{
    const ParseOutcome outcome = StoreNumber("exclusion mode", argument, &settings->exclusionMode);
    if (outcome == ParseOutcome::Parsed && settings->exclusionMode > kExclusionModeMax) {
        Warning("Invalid exclusion mode: %d\n", static_cast<int>(settings->exclusionMode));
        return ParseOutcome::Failed;
    }
    return outcome;
}
