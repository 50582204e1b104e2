// One decoder a payload shape. Each names every field, and says which bytes are not what the protocol lays down.

#include "payload_shapes.h"

#include "command_settings.h"
#include "records.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>

namespace standin {

// The names of numbers, in the order of the numbers; empty where a number stands for nothing.
static constexpr std::string_view kDecomModes[] = {"noAction", "ensureAccess", "evacAllData"};
static constexpr std::string_view kReasons[] = {"none", "disable dedup", "enable encryption",
                                                "disable dedup and enforce encryption"};
static constexpr std::string_view kRecoveryModes[] = {"",       "REPAIR", "REBALANCE", "COMPLIANCE",
                                                      "POLICY", "CONCAT", "DELTA",     "ALL"};
static constexpr std::string_view kExclusionModes[] = {"all new components", "ignoreForWitness",
                                                       "ignoreForNewPlacement", "ignoreForWitnessAndNewPlacement"};
static constexpr std::string_view kWorkItems[] = {"",
                                                  "PLACEMENT",
                                                  "DECOM_CLEANUP",
                                                  "CLEANUP",
                                                  "",
                                                  "VOTES_REBALANCE",
                                                  "FIX_FD_IDS",
                                                  "MOVE",
                                                  "REACTIVE_REBALANCE",
                                                  "DECOM",
                                                  "FORCE_REPAIR",
                                                  "FORCE_RECONFIGURE",
                                                  "RECOVERY",
                                                  "REPAIR",
                                                  "CHANGE",
                                                  "CHANGE_PENDING",
                                                  "COMPLIANCE",
                                                  "CONCAT",
                                                  "PROACTIVE_REBALANCE",
                                                  "DELTA_DECOM",
                                                  "FORMAT_CHANGE",
                                                  "UNPLANNED_DELTA",
                                                  "MANUAL_MOVE"};
static constexpr std::string_view kEvents[] = {"none", "update", "add", "delete"};
static constexpr std::string_view kEntries[] = {"none", "", "object", "disk", "node"};

template <size_t kCount>
static std::string_view Meaning(const std::string_view (&names)[kCount], uint64_t number)
{
    return number < kCount ? names[number] : std::string_view{};
}

static void AddField(DecodedRequest *request, std::string_view name, nlohmann::ordered_json value,
                     std::string_view meaning = {})
{
    request->fields.push_back({name, std::move(value), meaning});
}

static void AddViolation(DecodedRequest *request, std::string_view name, const std::string &what)
{
    request->violations.push_back(std::string(name) + " " + what);
}

static std::string_view AsText(Bytes bytes)
{
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

// Copies the bytes that arrived into a zeroed record: a record with a variable text at its end arrives in part.
template <typename Record>
static std::unique_ptr<Record> CopyRecord(Bytes payload)
{
    auto record = std::make_unique<Record>();
    memcpy(record.get(), payload.data(), payload.size());
    return record;
}

static std::string UuidText(const Uuid &uuid)
{
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < std::size(uuid.bytes); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            text += '-';
        }
        text += kDigits[uuid.bytes[i] >> 4U];
        text += kDigits[uuid.bytes[i] & 15U];
    }
    return text;
}

static bool IsUuidText(std::string_view text)
{
    static constexpr std::string_view kPattern = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
    const auto fits = [](char place, char character) {
        return place == '-' ? character == '-'
                            : std::string_view("0123456789abcdef").find(character) != std::string_view::npos;
    };
    return std::equal(kPattern.begin(), kPattern.end(), text.begin(), text.end(), fits);
}

static void DecodeUuidText(DecodedRequest *request, std::string_view text)
{
    AddField(request, "uuid", text);
    if (!IsUuidText(text)) {
        AddViolation(request, "uuid", "is not the text of a UUID");
    }
}

static void CheckZero(DecodedRequest *request, std::string_view what, Bytes payload, size_t begin, size_t end)
{
    for (size_t i = begin; i < end; ++i) {
        if (payload[i] != 0) {
            AddViolation(request, what, "is not zero at payload byte " + std::to_string(i));
            return;
        }
    }
}

static void CheckFlag(DecodedRequest *request, std::string_view name, uint64_t value)
{
    if (value > 1) {
        AddViolation(request, name, "is " + std::to_string(value) + ", neither 0 nor 1");
    }
}

// The text in the payload from `begin` to `end`, where a terminator and zeros up to the end have to follow it.
static std::string_view TerminatedText(DecodedRequest *request, std::string_view name, Bytes payload, size_t begin,
                                       size_t end)
{
    const std::string_view field = AsText(payload.subspan(begin, end - begin));
    const size_t length = field.find('\0');
    if (length == std::string_view::npos) {
        AddViolation(request, name, "has no terminator");
        return field;
    }
    CheckZero(request, std::string("what follows ") + std::string(name), payload, begin + length, end);
    return field.substr(0, length);
}

// A text whose length is that of the payload: its terminator is the payload's last byte.
static std::string_view WholeText(DecodedRequest *request, std::string_view name, Bytes payload, size_t begin)
{
    const std::string_view text = TerminatedText(request, name, payload, begin, payload.size());
    if (text.size() + 1 < payload.size() - begin) {
        AddViolation(request, name,
                     "ends after " + std::to_string(text.size()) + " of " + std::to_string(payload.size() - begin - 1) +
                         " characters");
    }
    return text;
}

// Joined with commas, the entries are the text again.
static nlohmann::ordered_json SplitList(std::string_view text)
{
    auto entries = nlohmann::ordered_json::array();
    if (text.empty()) {
        return entries;
    }
    size_t comma = 0;
    while ((comma = text.find(',')) != std::string_view::npos) {
        entries.push_back(text.substr(0, comma));
        text.remove_prefix(comma + 1);
    }
    entries.push_back(text);
    return entries;
}

struct ListNames {
    std::string_view count;
    std::string_view list;
};

// A list's count is reckoned from its length alone, so a list of the right length may hold anything.
static void DecodeList(DecodedRequest *request, ListNames names, uint32_t count, std::string_view text)
{
    AddField(request, names.count, count);
    AddField(request, names.list, SplitList(text));
    const size_t due = (text.size() + 1) / kUuidListEntrySize;
    if (count != due) {
        AddViolation(request, names.count,
                     "is " + std::to_string(count) + ", but " + std::string(names.list) + " has room for " +
                         std::to_string(due));
    }
    if (!text.empty() && (text.size() + 1) % kUuidListEntrySize != 0) {
        AddViolation(request, names.list, "has the length " + std::to_string(text.size()) + " of no list of UUIDs");
    }
}

// A decimal number that is the whole of `text`.
static std::optional<uint64_t> WholeNumber(std::string_view text)
{
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return number;
}

// A number as text. Text that is no number is shown as it is.
template <size_t kCount>
static void DecodeNumberText(DecodedRequest *request, std::string_view name, std::string_view text,
                             const std::string_view (&names)[kCount])
{
    const std::optional<uint64_t> number = WholeNumber(text);
    if (!number) {
        AddField(request, name, text);
        AddViolation(request, name, "is not a number");
        return;
    }
    AddField(request, name, *number, Meaning(names, *number));
    if (text.size() > 1 && text.front() == '0') {
        AddViolation(request, name, "has leading zeros");
    }
}

// ---- The shapes, in the order of their first command. ----

static void DecodeNothing(Bytes, DecodedRequest *) {}
const PayloadShape kNoPayload = {0, 0, DecodeNothing};

static void DecodeUuidTextPayload(Bytes payload, DecodedRequest *request)
{
    DecodeUuidText(request, AsText(payload));
}
const PayloadShape kUuidTextPayload = {kUuidTextLength, kUuidTextLength, DecodeUuidTextPayload};

static void DecodeJson(Bytes payload, DecodedRequest *request)
{
    AddField(request, "json", WholeText(request, "json", payload, 0));
}
const PayloadShape kJsonPayload = {1, kRequestLengthMax, DecodeJson};

static void DecodeLogLevel(Bytes payload, DecodedRequest *request)
{
    AddField(request, "level", AsText(payload));
    if (AsText(payload).find('\0') != std::string_view::npos) {
        AddViolation(request, "level", "holds a zero byte");
    }
}
const PayloadShape kLogLevelPayload = {0, kRequestLengthMax, DecodeLogLevel};

// The one NaN of each sign that a word on the command line gives, or the bits of any other.
static std::string NanText(double number)
{
    const auto bits = std::bit_cast<uint64_t>(number);
    if ((bits & INT64_MAX) == std::bit_cast<uint64_t>(std::numeric_limits<double>::quiet_NaN())) {
        return std::signbit(number) ? "-nan" : "nan";
    }
    char text[32];
    snprintf(text, sizeof text, "nan(0x%016" PRIx64 ")", bits);
    return text;
}

// JSON has neither infinities nor NaNs: they are given as texts.
static nlohmann::ordered_json Real(double number)
{
    if (std::isfinite(number)) {
        return number;
    }
    return std::isnan(number) ? NanText(number) : number > 0 ? "inf" : "-inf";
}

static void DecodeProactiveRebalance(Bytes payload, DecodedRequest *request)
{
    const auto record = CopyRecord<ProactiveRebalanceRequest>(payload);
    AddField(request, "timeSpan", record->timeSpan);
    AddField(request, "varianceThreshold", Real(record->varianceThreshold));
    AddField(request, "timeThreshold", record->timeThreshold);
    AddField(request, "rateThreshold", record->rateThreshold);
}
const PayloadShape kProactiveRebalancePayload = {sizeof(ProactiveRebalanceRequest), sizeof(ProactiveRebalanceRequest),
                                                 DecodeProactiveRebalance};

static void DecodeWhatIfEntityDecom(Bytes payload, DecodedRequest *request)
{
    const auto record = CopyRecord<WhatIfEntityDecomRequest>(payload);
    AddField(request, "uuid", UuidText(record->uuid));
    AddField(request, "decomMode", record->decomMode, Meaning(kDecomModes, record->decomMode));
    AddField(request, "ensureDurability", record->ensureDurability);
    CheckFlag(request, "ensureDurability", record->ensureDurability);
    CheckZero(request, "the gap behind ensureDurability", payload, offsetof(WhatIfEntityDecomRequest, padding),
              sizeof *record);
}
const PayloadShape kWhatIfEntityDecomPayload = {sizeof(WhatIfEntityDecomRequest), sizeof(WhatIfEntityDecomRequest),
                                                DecodeWhatIfEntityDecom};

static void DecodeWhatIfUpgrade(Bytes payload, DecodedRequest *request)
{
    const auto record = CopyRecord<WhatIfUpgradeRequest>(payload);
    AddField(request, "uuid", UuidText(record->uuid));
    AddField(request, "decomMode", record->decomMode, Meaning(kDecomModes, record->decomMode));
    AddField(request, "reason", record->reason, Meaning(kReasons, record->reason));
    AddField(request, "wipeDisk", record->wipeDisk);
    CheckFlag(request, "wipeDisk", record->wipeDisk);
    CheckZero(request, "the gap behind wipeDisk", payload, offsetof(WhatIfUpgradeRequest, padding),
              offsetof(WhatIfUpgradeRequest, uuidCount));
    DecodeList(request, {"uuidCount", "uuidList"}, record->uuidCount,
               WholeText(request, "uuidList", payload, offsetof(WhatIfUpgradeRequest, uuidList)));
}
const PayloadShape kWhatIfUpgradePayload = {offsetof(WhatIfUpgradeRequest, uuidList) + 1, sizeof(WhatIfUpgradeRequest),
                                            DecodeWhatIfUpgrade};

static void DecodeForceReconfigure(Bytes payload, DecodedRequest *request)
{
    AddField(request, "uuid", UuidText(CopyRecord<ForceReconfigureRequest>(payload)->uuid));
    AddField(request, "filePath", WholeText(request, "filePath", payload, offsetof(ForceReconfigureRequest, filePath)));
}
const PayloadShape kForceReconfigurePayload = {offsetof(ForceReconfigureRequest, filePath) + 1,
                                               offsetof(ForceReconfigureRequest, filePath) + kFilePathLengthMax + 1,
                                               DecodeForceReconfigure};

static void DecodeFilePath(Bytes payload, DecodedRequest *request)
{
    AddField(request, "filePath", WholeText(request, "filePath", payload, 0));
}
const PayloadShape kFilePathPayload = {1, kFilePathLengthMax + 1, DecodeFilePath};

// The text of a UUID with a number right behind it.
template <size_t kCount>
static void DecodeUuidAndNumber(DecodedRequest *request, std::string_view name, std::string_view text,
                                const std::string_view (&names)[kCount])
{
    DecodeUuidText(request, text.substr(0, kUuidTextLength));
    DecodeNumberText(request, name, text.substr(std::min(text.size(), kUuidTextLength)), names);
}

static void DecodeRecoveryMode(Bytes payload, DecodedRequest *request)
{
    DecodeUuidAndNumber(request, "recoveryMode", TerminatedText(request, "recoveryMode", payload, 0, payload.size()),
                        kRecoveryModes);
}
const PayloadShape kRecoveryModePayload = {sizeof(RecoveryModeRequest), sizeof(RecoveryModeRequest),
                                           DecodeRecoveryMode};

static void DecodeWorkItem(Bytes payload, DecodedRequest *request)
{
    DecodeNumberText(request, "workItemType", TerminatedText(request, "workItemType", payload, 0, payload.size()),
                     kWorkItems);
}
const PayloadShape kWorkItemPayload = {sizeof(WorkItemRequest), sizeof(WorkItemRequest), DecodeWorkItem};

static void DecodeCrawlerState(Bytes payload, DecodedRequest *request)
{
    static constexpr std::string_view kNoNames[] = {""};
    const size_t fieldSize = sizeof(CrawlerStateRequest::text);
    DecodeUuidAndNumber(request, "all", TerminatedText(request, "all", payload, 0, fieldSize), kNoNames);
    CheckZero(request, "what travels beyond the field", payload, fieldSize, payload.size());
    const auto &all = request->fields.back().value;
    if (all.is_number()) {
        CheckFlag(request, "all", all.get<uint64_t>());
        request->allObjects = all == 1;
    }
}
const PayloadShape kCrawlerStatePayload = {sizeof(CrawlerStateRequest), sizeof(CrawlerStateRequest),
                                           DecodeCrawlerState};

// The number before the next colon. What it names has to be known: there is no entry 1.
template <size_t kCount>
static void DecodeCallbackNumber(DecodedRequest *request, std::string_view name, std::string_view *text,
                                 const std::string_view (&names)[kCount])
{
    const size_t colon = std::min(text->find(':'), text->size());
    DecodeNumberText(request, name, text->substr(0, colon), names);
    if (request->fields.back().value.is_number() && request->fields.back().meaning.empty()) {
        AddViolation(request, name, "is " + request->fields.back().value.dump() + ", which stands for nothing");
    }
    text->remove_prefix(std::min(colon + 1, text->size()));
}

static void DecodeCallbackBlock(Bytes payload, DecodedRequest *request)
{
    std::string_view text = TerminatedText(request, "uuid", payload, 0, payload.size());
    DecodeCallbackNumber(request, "event", &text, kEvents);
    DecodeCallbackNumber(request, "entry", &text, kEntries);
    DecodeUuidText(request, text);
}
const PayloadShape kCallbackBlockPayload = {sizeof(CallbackBlockRequest), sizeof(CallbackBlockRequest),
                                            DecodeCallbackBlock};

static void DecodeManualMove(Bytes payload, DecodedRequest *request)
{
    const auto record = CopyRecord<ComponentManualMoveRequest>(payload);
    const size_t destinations = offsetof(ComponentManualMoveRequest, destinationList);
    const size_t exclusions = offsetof(ComponentManualMoveRequest, exclusionList);
    AddField(request, "uuid", UuidText(record->uuid));
    DecodeList(request, {"destinationCount", "destinationList"}, record->destinationCount,
               TerminatedText(request, "destinationList", payload, destinations, exclusions));
    DecodeList(request, {"exclusionCount", "exclusionList"}, record->exclusionCount,
               TerminatedText(request, "exclusionList", payload, exclusions, sizeof *record));
}
const PayloadShape kManualMovePayload = {sizeof(ComponentManualMoveRequest), sizeof(ComponentManualMoveRequest),
                                         DecodeManualMove};

static void DecodeGlobalExclusion(Bytes payload, DecodedRequest *request)
{
    const auto record = CopyRecord<GlobalExclusionListRequest>(payload);
    AddField(request, "exclusionMode", record->exclusionMode, Meaning(kExclusionModes, record->exclusionMode));
    DecodeList(request, {"exclusionCount", "exclusionList"}, record->exclusionCount,
               TerminatedText(request, "exclusionList", payload, offsetof(GlobalExclusionListRequest, exclusionList),
                              sizeof *record));
}
const PayloadShape kGlobalExclusionPayload = {sizeof(GlobalExclusionListRequest), sizeof(GlobalExclusionListRequest),
                                              DecodeGlobalExclusion};

} // namespace standin
