// Each sender builds one payload and sends it with the length that the daemon expects.

#include "senders.h"

#include "callback_block.h"
#include "frame.h"
#include "records.h"
#include "safe_allocation.h"
#include "uuid_text.h"

#include <charconv>
#include <cstdio>
#include <cstring>

// An empty list counts 0, since its one terminator is not a whole entry.
static uint32_t CountListEntries(const char *list)
{
    return static_cast<uint32_t>((strlen(list) + 1) / kUuidListEntrySize);
}

// Writes the UUID text and behind it one decimal digit, `number`.
static void WriteUuidAndDigit(const Uuid &uuid, uint32_t number, char *text)
{
    *WriteUuidText(uuid, text) = static_cast<char>('0' + number);
}

// Reads words as numbers. A word that begins with no number, such as "default", leaves its number alone; what follows a
// number is dropped.
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

QRT_ReturnStatus SendHeaderOnly(const Request &request)
{
    return SendCommand(request.socket, request.code, nullptr, 0);
}

QRT_ReturnStatus SendUuidText(const Request &request)
{
    char text[kUuidTextLength];
    WriteUuidText(request.settings.uuid, text);
    return SendCommand(request.socket, request.code, text, sizeof text);
}

QRT_ReturnStatus SendJson(const Request &request)
{
    return SendCommand(request.socket, request.code, request.settings.json, strlen(request.settings.json) + 1);
}

QRT_ReturnStatus SendLogLevel(const Request &request)
{
    // With no word after the command word the index is 0, and the program's own name goes out as the level: the daemon
    // is the one to refuse it. (test log_level_without_a_level)
    const char *level = request.arguments[request.argumentIndex];
    return SendCommand(request.socket, request.code, level, strlen(level));
}

QRT_ReturnStatus SendProactiveRebalance(const Request &request)
{
    ProactiveRebalanceRequest record;
    const int wordCount = request.argumentIndex == 0 ? 0 : request.argumentCount - request.argumentIndex;
    char *const *words = request.arguments + request.argumentIndex;
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
    return SendCommand(request.socket, request.code, &record, sizeof record);
}

QRT_ReturnStatus SendWhatIfEntityDecom(const Request &request)
{
    const CommandSettings &settings = request.settings;
    const WhatIfEntityDecomRequest record{
        .uuid = settings.uuid,
        .decomMode = settings.decomMode,
        .ensureDurability = settings.ensureDurability,
        .gap = {},
    };
    return SendCommand(request.socket, request.code, &record, sizeof record);
}

QRT_ReturnStatus SendWhatIfUpgrade(const Request &request)
{
    const CommandSettings &settings = request.settings;
    WhatIfUpgradeRequest *record = settings.whatIfUpgrade;
    record->uuid = settings.uuid;
    record->decomMode = settings.decomMode;
    record->reason = settings.reason;
    record->wipeDisk = settings.wipeDisk;
    record->uuidCount = CountListEntries(record->uuidList);
    const size_t length = offsetof(WhatIfUpgradeRequest, uuidList) + strlen(record->uuidList) + 1;
    return SendCommand(request.socket, request.code, record, length);
}

QRT_ReturnStatus SendForceReconfigure(const Request &request)
{
    ForceReconfigureRequest record{.uuid = request.settings.uuid, .filePath = {}};
    const size_t pathLength = strlen(request.settings.filePath);
    memcpy(record.filePath, request.settings.filePath, pathLength);
    const size_t length = offsetof(ForceReconfigureRequest, filePath) + pathLength + 1;
    return SendCommand(request.socket, request.code, &record, length);
}

QRT_ReturnStatus SendFilePath(const Request &request)
{
    return SendCommand(request.socket, request.code, request.settings.filePath, strlen(request.settings.filePath) + 1);
}

QRT_ReturnStatus SendRecoveryMode(const Request &request)
{
    RecoveryModeRequest record{};
    WriteUuidAndDigit(request.settings.uuid, request.settings.recoveryMode, record.text);
    return SendCommand(request.socket, request.code, &record, sizeof record);
}

QRT_ReturnStatus SendWorkItem(const Request &request)
{
    WorkItemRequest record{};
    std::to_chars(record.text, record.text + sizeof record.text - 1, request.settings.workItemType);
    return SendCommand(request.socket, request.code, &record, sizeof record);
}

QRT_ReturnStatus SendCrawlerState(const Request &request)
{
    CrawlerStateRequest record{};
    WriteUuidAndDigit(request.settings.uuid, static_cast<uint32_t>(request.settings.all), record.text);
    return SendCommand(request.socket, request.code, &record, sizeof record);
}

QRT_ReturnStatus SendCallbackBlock(const Request &request)
{
    return SendBlockCdbCbCommand(request.argumentCount, request.arguments, request.argumentIndex, request.socket,
                                 request.code, request.settings.uuid);
}

QRT_ReturnStatus SendComponentManualMove(const Request &request)
{
    ComponentManualMoveRequest *record = request.settings.manualMove;
    record->uuid = request.settings.uuid;
    record->destinationCount = CountListEntries(record->destinationList);
    record->exclusionCount = CountListEntries(record->exclusionList);
    return SendCommand(request.socket, request.code, record, sizeof *record);
}

QRT_ReturnStatus SendGlobalExclusionList(const Request &request)
{
    const char *list = request.settings.manualMove->exclusionList;
    auto *record = static_cast<GlobalExclusionListRequest *>(PLAX_SafeCalloc(1, sizeof(GlobalExclusionListRequest)));
    record->exclusionMode = request.settings.exclusionMode;
    record->exclusionCount = CountListEntries(list);
    memcpy(record->exclusionList, list, strlen(list));
    const QRT_ReturnStatus status = SendCommand(request.socket, request.code, record, sizeof *record);
    free(record);
    return status;
}
