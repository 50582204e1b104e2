// Each sender builds one payload and sends it with the length that the daemon expects.

#include "senders.h"

#include "frame.h"
#include "records.h"
#include "safe_allocation.h"
#include "uuid_text.h"

#include <charconv>
#include <cstdio>
#include <cstring>

// Stores the list in a field that is zero or holds an earlier list, leaves the field's unused end zero, and returns the
// number of entries. An empty list has 0 entries: its terminator alone is shorter than an entry.
static uint32_t FillList(const char *list, char *field)
{
    const size_t length = strlen(list);
    memset(field, 0, strlen(field));
    memcpy(field, list, length + 1);
    return static_cast<uint32_t>((length + 1) / kUuidListEntrySize);
}

// Writes the UUID text followed by `number`, which has one decimal digit.
static void WriteUuidAndDigit(const Uuid &uuid, uint32_t number, char *text)
{
    *WriteUuidText(uuid, text) = static_cast<char>('0' + number);
}

// A word that does not start with a number, such as "default", leaves *number unchanged. Text after a number is
// ignored.
static void ReadUnsigned(const char *word, uint64_t *number)
{
    unsigned long value = 0; // narrower than the field on 32-bit hosts
    if (sscanf(word, "%lu", &value) == 1) {
        *number = value;
    }
}

static void ReadDouble(const char *word, double *number)
{
    sscanf(word, "%lf", number);
}

QRT_ReturnStatus SendHeaderOnly(const Invocation &invocation)
{
    return SendCommand(invocation.socket, invocation.code, nullptr, 0);
}

QRT_ReturnStatus SendUuidText(const Invocation &invocation)
{
    char text[kUuidTextLength];
    WriteUuidText(invocation.settings.uuid, text);
    return SendCommand(invocation.socket, invocation.code, text, sizeof text);
}

QRT_ReturnStatus SendJson(const Invocation &invocation)
{
    return SendCommand(invocation.socket, invocation.code, invocation.settings.json,
                       strlen(invocation.settings.json) + 1);
}

QRT_ReturnStatus SendLogLevel(const Invocation &invocation)
{
    // Without a level the index is 0, and the program's own name is sent. (test log_level_without_a_level)
    const char *level = invocation.arguments[invocation.argumentIndex];
    return SendCommand(invocation.socket, invocation.code, level, strlen(level));
}

QRT_ReturnStatus SendProactiveRebalance(const Invocation &invocation)
{
    ProactiveRebalanceRequest record;
    const int wordCount = invocation.argumentIndex == 0 ? 0 : invocation.argumentCount - invocation.argumentIndex;
    char *const *words = invocation.arguments + invocation.argumentIndex;
    if (wordCount > 0) {
        ReadUnsigned(words[0], &record.timeSpan);
    }
    if (wordCount > 1) {
        ReadDouble(words[1], &record.varianceThreshold);
    }
    if (wordCount > 2) {
        ReadUnsigned(words[2], &record.timeThreshold);
    }
    if (wordCount > 3) {
        ReadUnsigned(words[3], &record.rateThreshold);
    }
    return SendCommand(invocation.socket, invocation.code, &record, sizeof record);
}

QRT_ReturnStatus SendWhatIfEntityDecom(const Invocation &invocation)
{
    const CommandSettings &settings = invocation.settings;
    const WhatIfEntityDecomRequest record{
        .uuid = settings.uuid,
        .decomMode = settings.decomMode,
        .ensureDurability = settings.ensureDurability,
        .padding = {},
    };
    return SendCommand(invocation.socket, invocation.code, &record, sizeof record);
}

QRT_ReturnStatus SendWhatIfUpgrade(const Invocation &invocation)
{
    const CommandSettings &settings = invocation.settings;
    static WhatIfUpgradeRequest record; // static: zero without writing to each of its pages
    record.uuid = settings.uuid;
    record.decomMode = settings.decomMode;
    record.reason = settings.reason;
    record.wipeDisk = settings.wipeDisk;
    record.uuidCount = FillList(settings.uuidList, record.uuidList);
    const size_t length = offsetof(WhatIfUpgradeRequest, uuidList) + strlen(settings.uuidList) + 1;
    return SendCommand(invocation.socket, invocation.code, &record, length);
}

QRT_ReturnStatus SendForceReconfigure(const Invocation &invocation)
{
    ForceReconfigureRequest record{.uuid = invocation.settings.uuid, .filePath = {}};
    const size_t pathLength = strlen(invocation.settings.filePath);
    memcpy(record.filePath, invocation.settings.filePath, pathLength);
    const size_t length = offsetof(ForceReconfigureRequest, filePath) + pathLength + 1;
    return SendCommand(invocation.socket, invocation.code, &record, length);
}

QRT_ReturnStatus SendFilePath(const Invocation &invocation)
{
    return SendCommand(invocation.socket, invocation.code, invocation.settings.filePath,
                       strlen(invocation.settings.filePath) + 1);
}

QRT_ReturnStatus SendRecoveryMode(const Invocation &invocation)
{
    RecoveryModeRequest record{};
    WriteUuidAndDigit(invocation.settings.uuid, invocation.settings.recoveryMode, record.text);
    return SendCommand(invocation.socket, invocation.code, &record, sizeof record);
}

QRT_ReturnStatus SendWorkItem(const Invocation &invocation)
{
    WorkItemRequest record{};
    std::to_chars(record.text, record.text + sizeof record.text - 1, invocation.settings.workItemType);
    return SendCommand(invocation.socket, invocation.code, &record, sizeof record);
}

QRT_ReturnStatus SendCrawlerState(const Invocation &invocation)
{
    CrawlerStateRequest record{};
    WriteUuidAndDigit(invocation.settings.uuid, static_cast<uint32_t>(invocation.settings.all), record.text);
    return SendCommand(invocation.socket, invocation.code, &record, sizeof record);
}

QRT_ReturnStatus SendComponentManualMove(const Invocation &invocation)
{
    const CommandSettings &settings = invocation.settings;
    static ComponentManualMoveRequest record; // static for the same reason
    record.uuid = settings.uuid;
    record.destinationCount = FillList(settings.destinationList, record.destinationList);
    record.exclusionCount = FillList(settings.exclusionList, record.exclusionList);
    return SendCommand(invocation.socket, invocation.code, &record, sizeof record);
}

QRT_ReturnStatus SendGlobalExclusionList(const Invocation &invocation)
{
    auto *record = static_cast<GlobalExclusionListRequest *>(PLAX_SafeCalloc(1, sizeof(GlobalExclusionListRequest)));
    record->exclusionMode = invocation.settings.exclusionMode;
    record->exclusionCount = FillList(invocation.settings.exclusionList, record->exclusionList);
    const QRT_ReturnStatus status = SendCommand(invocation.socket, invocation.code, record, sizeof *record);
    free(record);
    return status;
}
