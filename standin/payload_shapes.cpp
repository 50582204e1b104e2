// One decoder for each payload shape. Each adds every field, a violation for what breaks the protocol, and a warning
// for what the protocol allows but is probably a mistake.

#include "payload_shapes.h"

#include "command_settings.h"
#include "field_kinds.h"
#include "records.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>

namespace standin {

// The names of numbers, indexed by number; empty if the number has no meaning.
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

std::span<const std::string_view> NamesOf(std::string_view field)
{
    if (field == "workItemType") {
        return kWorkItems;
    }
    return field == "event" ? std::span<const std::string_view>(kEvents) : kEntries;
}

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

static void AddWarning(DecodedRequest *request, std::string_view name, const std::string &what)
{
    request->warnings.push_back(std::string(name) + " " + what);
}

static std::string WithoutMeaning(uint64_t number)
{
    return "is " + std::to_string(number) + ", which has no meaning";
}

static std::string_view AsText(Bytes bytes)
{
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

// The rest of the record is zero: a record that ends in a text is sent only up to the end of that text.
template <typename Record>
static std::unique_ptr<Record> CopyRecord(Bytes payload)
{
    auto record = std::make_unique<Record>();
    memcpy(record.get(), payload.data(), payload.size());
    return record;
}

static constexpr std::string_view kZeroUuid = "00000000-0000-0000-0000-000000000000";

static std::string UuidText(const Uuid &uuid)
{
    std::string text;
    for (size_t i = 0; i < std::size(uuid.bytes); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            text += '-';
        }
        text += kLowerCaseDigits[uuid.bytes[i] >> 4U];
        text += kLowerCaseDigits[uuid.bytes[i] & 15U];
    }
    return text;
}

// A client that is given the beginning of a UUID sends zeros for the rest. A whole UUID hardly ever ends in four zero
// bytes, but may end in fewer.
static void WarnOfUuid(DecodedRequest *request, std::string_view text, bool isNeeded)
{
    if (text == kZeroUuid) {
        if (isNeeded) {
            AddWarning(request, "uuid", "is all zeros");
        }
    } else if (text.ends_with("00000000")) {
        AddWarning(request, "uuid", "ends in zeros, as if it were cut off");
    }
}

static void AddUuidText(DecodedRequest *request, std::string_view text)
{
    AddField(request, "uuid", text);
    if (!IsUuidText(text, kLowerCaseDigits)) {
        AddViolation(request, "uuid", "is not the text of a UUID");
    }
}

static void DecodeUuidText(DecodedRequest *request, std::string_view text, bool isNeeded)
{
    AddUuidText(request, text);
    WarnOfUuid(request, text, isNeeded);
}

static void DecodeUuid(DecodedRequest *request, const Uuid &uuid, bool isNeeded)
{
    const std::string text = UuidText(uuid);
    AddField(request, "uuid", text);
    WarnOfUuid(request, text, isNeeded);
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

// The text in the payload from `begin` to `end`. A terminator must follow it, and zeros up to `end`.
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

// A text that takes the rest of the payload: its terminator must be the payload's last byte.
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

// Joining the entries with commas gives the text again.
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

static void AddTypedViolation(DecodedRequest *request, std::string_view name, const std::string &what)
{
    AddViolation(request, name, what);
    ++request->typedViolations;
}

// Reports the first wrong entry of a list whose length is right. A client copies its user's list, so its digits may be
// in upper or lower case.
static void CheckEntries(DecodedRequest *request, std::string_view name, std::string_view text)
{
    for (size_t number = 1; !text.empty(); ++number) {
        const std::string entryName = "entry " + std::to_string(number);
        const std::string_view entry = text.substr(0, kUuidTextLength);
        text.remove_prefix(kUuidTextLength);
        if (!IsUuidText(entry, kEitherCaseDigits)) {
            AddTypedViolation(request, name, entryName + " is not the text of a UUID");
            return;
        }
        if (!text.empty() && text[0] != ',') {
            AddTypedViolation(request, name, entryName + " is not followed by a comma");
            return;
        }
        if (entry == kZeroUuid) {
            AddWarning(request, name, entryName + " is all zeros");
        }
        text.remove_prefix(std::min<size_t>(1, text.size()));
    }
}

// Clients calculate a list's count from its length alone.
static void DecodeList(DecodedRequest *request, ListNames names, uint32_t count, std::string_view text)
{
    AddField(request, names.count, count);
    AddField(request, names.list, SplitList(text));
    const size_t due = (text.size() + 1) / kUuidListEntrySize;
    if (count != due) {
        AddViolation(request, names.count,
                     "is " + std::to_string(count) + ", but " + std::string(names.list) + " has space for " +
                         std::to_string(due));
    }
    if (text.empty()) {
        return;
    }
    if ((text.size() + 1) % kUuidListEntrySize != 0) {
        AddViolation(request, names.list, "has length " + std::to_string(text.size()) + ", which no list of UUIDs has");
        return;
    }
    CheckEntries(request, names.list, text);
}

// Decodes a number that is sent as text. Non-numeric text is shown unchanged, and nothing is returned.
template <size_t kCount>
static std::optional<uint64_t> DecodeNumberText(DecodedRequest *request, std::string_view name, std::string_view text,
                                                const std::string_view (&names)[kCount])
{
    const std::optional<uint64_t> number = WholeNumber(text);
    if (!number) {
        AddField(request, name, text);
        AddViolation(request, name, "is not a number");
        return number;
    }
    AddField(request, name, *number, Meaning(names, *number));
    if (text.size() > 1 && text.front() == '0') {
        AddViolation(request, name, "has leading zeros");
    }
    return number;
}

// For a number whose range clients do not check.
template <size_t kCount>
static void DecodeUncheckedNumber(DecodedRequest *request, std::string_view name, uint32_t number,
                                  const std::string_view (&names)[kCount])
{
    AddField(request, name, number, Meaning(names, number));
    if (number >= kCount) {
        AddWarning(request, name, WithoutMeaning(number));
    }
}

static void DecodePath(DecodedRequest *request, Bytes payload, size_t begin)
{
    const std::string_view path = WholeText(request, "filePath", payload, begin);
    AddField(request, "filePath", path);
    if (path.empty()) {
        AddWarning(request, "filePath", "is empty");
    } else if (path[0] != '/') {
        AddWarning(request, "filePath", "is relative, and the daemon's directory is not the client's");
    }
}

// ---- The shapes, in the order of their first command. ----

static void DecodeNothing(Bytes, DecodedRequest *) {}
const PayloadShape kNoPayload = {0, 0, DecodeNothing};

static void DecodeUuidTextPayload(Bytes payload, DecodedRequest *request)
{
    DecodeUuidText(request, AsText(payload), true);
}
const PayloadShape kUuidTextPayload = {kUuidTextLength, kUuidTextLength, DecodeUuidTextPayload};

static void DecodeOptionalUuidText(Bytes payload, DecodedRequest *request)
{
    DecodeUuidText(request, AsText(payload), false);
}
const PayloadShape kOptionalUuidTextPayload = {kUuidTextLength, kUuidTextLength, DecodeOptionalUuidText};

static void DecodeJson(Bytes payload, DecodedRequest *request)
{
    const std::string_view text = WholeText(request, "json", payload, 0);
    AddField(request, "json", text);
    if (!nlohmann::json::accept(text)) {
        AddWarning(request, "json", "is not JSON");
    }
}
const PayloadShape kJsonPayload = {1, kRequestLengthMax, DecodeJson};

static void DecodeLogLevel(Bytes payload, DecodedRequest *request)
{
    const std::string_view level = AsText(payload);
    AddField(request, "level", level);
    if (level.find('\0') != std::string_view::npos) {
        AddViolation(request, "level", "holds a zero byte");
    }
    if (level.empty()) {
        AddWarning(request, "level", "is empty");
    }
    // If no level follows the command word, the client sends the name by which it was started.
    if (level.substr(level.rfind('/') + 1) == "plax-tool") {
        AddWarning(request, "level", "is the name of the program");
    }
}
const PayloadShape kLogLevelPayload = {0, kRequestLengthMax, DecodeLogLevel};

static void DecodeProactiveRebalance(Bytes payload, DecodedRequest *request)
{
    const auto record = CopyRecord<ProactiveRebalanceRequest>(payload);
    AddField(request, "timeSpan", record->timeSpan);
    AddField(request, "varianceThreshold", Real(record->varianceThreshold));
    if (!(record->varianceThreshold >= 0 && record->varianceThreshold <= 1)) {
        AddWarning(request, "varianceThreshold", "is not from 0 to 1");
    }
    AddField(request, "timeThreshold", record->timeThreshold);
    AddField(request, "rateThreshold", record->rateThreshold);
}
const PayloadShape kProactiveRebalancePayload = {sizeof(ProactiveRebalanceRequest), sizeof(ProactiveRebalanceRequest),
                                                 DecodeProactiveRebalance};

static void DecodeWhatIfEntityDecom(Bytes payload, DecodedRequest *request)
{
    const auto record = CopyRecord<WhatIfEntityDecomRequest>(payload);
    DecodeUuid(request, record->uuid, true);
    DecodeUncheckedNumber(request, "decomMode", record->decomMode, kDecomModes);
    AddField(request, "ensureDurability", record->ensureDurability);
    CheckFlag(request, "ensureDurability", record->ensureDurability);
    CheckZero(request, "the padding after ensureDurability", payload, offsetof(WhatIfEntityDecomRequest, padding),
              sizeof *record);
}
const PayloadShape kWhatIfEntityDecomPayload = {sizeof(WhatIfEntityDecomRequest), sizeof(WhatIfEntityDecomRequest),
                                                DecodeWhatIfEntityDecom};

static void DecodeWhatIfUpgrade(Bytes payload, DecodedRequest *request)
{
    const auto record = CopyRecord<WhatIfUpgradeRequest>(payload);
    DecodeUuid(request, record->uuid, false);
    DecodeUncheckedNumber(request, "decomMode", record->decomMode, kDecomModes);
    DecodeUncheckedNumber(request, "reason", record->reason, kReasons);
    AddField(request, "wipeDisk", record->wipeDisk);
    CheckFlag(request, "wipeDisk", record->wipeDisk);
    CheckZero(request, "the padding after wipeDisk", payload, offsetof(WhatIfUpgradeRequest, padding),
              offsetof(WhatIfUpgradeRequest, uuidCount));
    DecodeList(request, {"uuidCount", "uuidList"}, record->uuidCount,
               WholeText(request, "uuidList", payload, offsetof(WhatIfUpgradeRequest, uuidList)));
}
const PayloadShape kWhatIfUpgradePayload = {offsetof(WhatIfUpgradeRequest, uuidList) + 1, sizeof(WhatIfUpgradeRequest),
                                            DecodeWhatIfUpgrade};

static void DecodeForceReconfigure(Bytes payload, DecodedRequest *request)
{
    DecodeUuid(request, CopyRecord<ForceReconfigureRequest>(payload)->uuid, true);
    DecodePath(request, payload, offsetof(ForceReconfigureRequest, filePath));
}
const PayloadShape kForceReconfigurePayload = {offsetof(ForceReconfigureRequest, filePath) + 1,
                                               offsetof(ForceReconfigureRequest, filePath) + kFilePathLengthMax + 1,
                                               DecodeForceReconfigure};

static void DecodeFilePath(Bytes payload, DecodedRequest *request)
{
    DecodePath(request, payload, 0);
}
const PayloadShape kFilePathPayload = {1, kFilePathLengthMax + 1, DecodeFilePath};

// The text of a UUID, directly followed by a number. With the number 0, the request concerns only the UUID's object, so
// a UUID of zeros is probably a mistake.
template <size_t kCount>
static std::optional<uint64_t> DecodeUuidAndNumber(DecodedRequest *request, std::string_view name,
                                                   std::string_view text, const std::string_view (&names)[kCount])
{
    const std::string_view uuid = text.substr(0, kUuidTextLength);
    AddUuidText(request, uuid);
    const std::optional<uint64_t> number = DecodeNumberText(request, name, text.substr(uuid.size()), names);
    WarnOfUuid(request, uuid, number == 0U);
    return number;
}

static void DecodeRecoveryMode(Bytes payload, DecodedRequest *request)
{
    const std::string_view text = TerminatedText(request, "recoveryMode", payload, 0, payload.size());
    const std::optional<uint64_t> mode = DecodeUuidAndNumber(request, "recoveryMode", text, kRecoveryModes);
    if (mode >= std::size(kRecoveryModes)) {
        AddViolation(request, "recoveryMode", WithoutMeaning(*mode));
    }
}
const PayloadShape kRecoveryModePayload = {sizeof(RecoveryModeRequest), sizeof(RecoveryModeRequest),
                                           DecodeRecoveryMode};

static void DecodeWorkItem(Bytes payload, DecodedRequest *request)
{
    const std::string_view text = TerminatedText(request, "workItemType", payload, 0, payload.size());
    const std::optional<uint64_t> type = DecodeNumberText(request, "workItemType", text, kWorkItems);
    if (type && Meaning(kWorkItems, *type).empty()) {
        AddViolation(request, "workItemType", WithoutMeaning(*type));
    }
}
const PayloadShape kWorkItemPayload = {sizeof(WorkItemRequest), sizeof(WorkItemRequest), DecodeWorkItem};

static void DecodeCrawlerState(Bytes payload, DecodedRequest *request)
{
    static constexpr std::string_view kNoNames[] = {""};
    const size_t fieldSize = sizeof(CrawlerStateRequest::text);
    const std::string_view text = TerminatedText(request, "all", payload, 0, fieldSize);
    const std::optional<uint64_t> all = DecodeUuidAndNumber(request, "all", text, kNoNames);
    CheckZero(request, "what travels beyond the field", payload, fieldSize, payload.size());
    CheckFlag(request, "all", all.value_or(0));
    request->allObjects = all == 1U;
}
const PayloadShape kCrawlerStatePayload = {sizeof(CrawlerStateRequest), sizeof(CrawlerStateRequest),
                                           DecodeCrawlerState};

// The number before the next colon must have a name: there is no entry 1. The client sends 0 if its user gave no word
// for it. If there were two words, it sends the last one's number, so the mistake cannot be detected.
template <size_t kCount>
static void DecodeCallbackNumber(DecodedRequest *request, std::string_view name, std::string_view *text,
                                 const std::string_view (&names)[kCount])
{
    const size_t colon = std::min(text->find(':'), text->size());
    const std::optional<uint64_t> number = DecodeNumberText(request, name, text->substr(0, colon), names);
    if (number && Meaning(names, *number).empty()) {
        AddViolation(request, name, WithoutMeaning(*number));
    } else if (number == 0U) {
        AddWarning(request, name, "is 0: no word for it was given");
    }
    text->remove_prefix(std::min(colon + 1, text->size()));
}

static void DecodeCallbackBlock(Bytes payload, DecodedRequest *request)
{
    std::string_view text = TerminatedText(request, "uuid", payload, 0, payload.size());
    DecodeCallbackNumber(request, "event", &text, kEvents);
    DecodeCallbackNumber(request, "entry", &text, kEntries);
    DecodeUuidText(request, text, true);
}
const PayloadShape kCallbackBlockPayload = {sizeof(CallbackBlockRequest), sizeof(CallbackBlockRequest),
                                            DecodeCallbackBlock};

static void DecodeManualMove(Bytes payload, DecodedRequest *request)
{
    const auto record = CopyRecord<ComponentManualMoveRequest>(payload);
    const size_t destinations = offsetof(ComponentManualMoveRequest, destinationList);
    const size_t exclusions = offsetof(ComponentManualMoveRequest, exclusionList);
    DecodeUuid(request, record->uuid, true);
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
    if (record->exclusionMode >= std::size(kExclusionModes)) {
        AddViolation(request, "exclusionMode", WithoutMeaning(record->exclusionMode));
    }
    DecodeList(request, {"exclusionCount", "exclusionList"}, record->exclusionCount,
               TerminatedText(request, "exclusionList", payload, offsetof(GlobalExclusionListRequest, exclusionList),
                              sizeof *record));
}
const PayloadShape kGlobalExclusionPayload = {sizeof(GlobalExclusionListRequest), sizeof(GlobalExclusionListRequest),
                                              DecodeGlobalExclusion};

// A payload of zeros has them all.
std::vector<Field> FieldsOf(const PayloadShape &shape)
{
    DecodedRequest request;
    shape.decode(std::vector<uint8_t>(shape.lengthMin), &request);
    return request.fields;
}

} // namespace standin
