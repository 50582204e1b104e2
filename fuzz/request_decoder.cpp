// The decoder of requests. Each payload is taken apart from its front, and nothing may be left over.

#include "request_decoder.h"

#include "input.h"
#include "stage.h"

#include <bit>
#include <cmath>
#include <cstring>

using UuidBytes = std::array<uint8_t, 16>;

static constexpr size_t kListFieldSize = 94720;

static std::string_view Take(std::string_view what, std::string_view *payload, size_t size)
{
    if (payload->size() < size) {
        Fail("the request ends within " + std::string(what));
    }
    return TakeText(payload, size);
}

// Takes a number in the host's byte order.
template <typename Number>
static Number TakeHostNumber(std::string_view what, std::string_view *payload)
{
    Number number = 0;
    memcpy(&number, Take(what, payload, sizeof number).data(), sizeof number);
    return number;
}

template <typename Number>
static void ExpectNumber(std::string_view what, std::string_view *payload, Number expected)
{
    ExpectEqual(what, TakeHostNumber<Number>(what, payload), expected);
}

static void ExpectZeros(std::string_view what, std::string_view zeros)
{
    if (zeros.find_first_not_of('\0') != zeros.npos) {
        Fail(std::string(what) + " is followed by bytes that are not zero");
    }
}

// Takes a field that holds a text, and zeros behind it.
static void ExpectTextField(std::string_view what, std::string_view *payload, size_t size, const std::string &expected)
{
    const std::string_view field = Take(what, payload, size);
    const size_t length = field.find('\0');
    ExpectEqual(what, field.substr(0, length), expected);
    if (length == field.npos) {
        Fail(std::string(what) + " is not terminated");
    }
    ExpectZeros(what, field.substr(length));
}

static void ExpectUuidBytes(std::string_view *payload, const UuidBytes &uuid)
{
    ExpectEqual("the UUID", Take("the UUID", payload, uuid.size()), AsText(uuid.data(), uuid.size()));
}

static uint8_t HexDigit(char digit)
{
    static constexpr std::string_view kDigits = "0123456789abcdef";
    const size_t value = kDigits.find(digit);
    if (value == kDigits.npos) {
        Fail("a UUID text holds what is no lower-case hexadecimal digit");
    }
    return static_cast<uint8_t>(value);
}

static void ExpectUuidText(std::string_view *payload, const UuidBytes &uuid)
{
    std::string_view text = Take("the UUID text", payload, 36);
    UuidBytes decoded{};
    for (size_t i = 0; i < decoded.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            ExpectEqual("what joins a UUID's groups", TakeText(&text, 1), "-");
        }
        const std::string_view digits = TakeText(&text, 2);
        decoded[i] = static_cast<uint8_t>(HexDigit(digits[0]) << 4 | HexDigit(digits[1]));
    }
    ExpectEqual("the UUID", AsText(decoded.data(), decoded.size()), AsText(uuid.data(), uuid.size()));
}

static uint32_t EntryCount(const std::string &list)
{
    return static_cast<uint32_t>((list.size() + 1) / 37);
}

static void ExpectManualMove(std::string_view *payload, const ModelSettings &settings)
{
    const std::string destinations = settings.destinationList.value_or("");
    const std::string exclusions = settings.exclusionList.value_or("");
    ExpectUuidBytes(payload, settings.uuid);
    ExpectNumber<uint32_t>("the destination count", payload, EntryCount(destinations));
    ExpectNumber<uint32_t>("the exclusion count", payload, EntryCount(exclusions));
    ExpectTextField("the destination list", payload, kListFieldSize, destinations);
    ExpectTextField("the exclusion list", payload, kListFieldSize, exclusions);
}

static void ExpectGlobalExclusion(std::string_view *payload, const ModelSettings &settings)
{
    const std::string exclusions = settings.exclusionList.value_or("");
    ExpectNumber<uint32_t>("the exclusion mode", payload, settings.exclusionMode);
    ExpectNumber<uint32_t>("the exclusion count", payload, EntryCount(exclusions));
    ExpectTextField("the exclusion list", payload, kListFieldSize, exclusions);
}

static void ExpectEntityDecom(std::string_view *payload, const ModelSettings &settings)
{
    ExpectUuidBytes(payload, settings.uuid);
    ExpectNumber<uint32_t>("the decom mode", payload, settings.decomMode);
    ExpectNumber<uint8_t>("ensure durability", payload, settings.ensureDurability ? 1 : 0);
    ExpectZeros("ensure durability", Take("the gap", payload, 3));
}

static void ExpectUpgrade(std::string_view *payload, const ModelSettings &settings)
{
    const std::string list = settings.uuidList.value_or("");
    ExpectUuidBytes(payload, settings.uuid);
    ExpectNumber<uint32_t>("the decom mode", payload, settings.decomMode);
    ExpectNumber<uint32_t>("the reason", payload, settings.reason);
    ExpectNumber<uint8_t>("wipe disk", payload, settings.wipeDisk ? 1 : 0);
    ExpectZeros("wipe disk", Take("the gap", payload, 3));
    ExpectNumber<uint32_t>("the list's count", payload, EntryCount(list));
    ExpectTextField("the list", payload, list.size() + 1, list);
}

static void ExpectUuidAndDigit(std::string_view *payload, const ModelSettings &settings, uint32_t number)
{
    ExpectUuidText(payload, settings.uuid);
    ExpectTextField("the digit", payload, 5, std::to_string(number));
}

static std::string LogLevelWord(const ModelRun &run)
{
    return run.words[run.argumentIndex];
}

void ExpectCallbackPayload(std::string_view payload, const ModelCallback &callback, const UuidBytes &uuid)
{
    const std::string codes = std::to_string(callback.event) + ":" + std::to_string(callback.entry) + ":";
    ExpectEqual("the callback's codes", Take("the codes", &payload, codes.size()), codes);
    ExpectUuidText(&payload, uuid);
    ExpectEqual("the bytes behind the callback's text", payload.size(), 1024 - 4 - 36);
    ExpectZeros("the callback's text", payload);
}

// All that is not a number is alike.
static void ExpectFraction(std::string_view *payload, double expected)
{
    const auto actual = TakeHostNumber<double>("the variance threshold", payload);
    if (!std::isnan(actual) || !std::isnan(expected)) {
        ExpectEqual("the variance threshold's bits", std::bit_cast<uint64_t>(actual),
                    std::bit_cast<uint64_t>(expected));
    }
}

void ExpectRebalancePayload(std::string_view payload, const ModelRebalance &rebalance)
{
    ExpectNumber<uint64_t>("the time span", &payload, rebalance.timeSpan);
    ExpectFraction(&payload, rebalance.varianceThreshold);
    ExpectNumber<uint64_t>("the time threshold", &payload, rebalance.timeThreshold);
    ExpectNumber<uint64_t>("the rate threshold", &payload, rebalance.rateThreshold);
    ExpectEqual("the bytes behind the thresholds", payload.size(), 0);
}

// Returns what is left of the payload.
static std::string_view ExpectPayload(std::string_view payload, const ModelRun &run)
{
    const ModelSettings &settings = run.settings;
    switch (run.command.payload) {
    case 'U':
        ExpectUuidText(&payload, settings.uuid);
        break;
    case 'J':
        ExpectTextField("the JSON text", &payload, settings.json.value_or("").size() + 1, settings.json.value_or(""));
        break;
    case 'L':
        ExpectEqual("the log level", Take("the log level", &payload, payload.size()), LogLevelWord(run));
        break;
    case 'R':
        ExpectRebalancePayload(payload, ReadModelRebalance(run.words, run.argumentIndex));
        return "";
    case 'D':
        ExpectEntityDecom(&payload, settings);
        break;
    case 'W':
        ExpectUpgrade(&payload, settings);
        break;
    case 'F':
        ExpectUuidBytes(&payload, settings.uuid);
        ExpectTextField("the file path", &payload, settings.filePath.size() + 1, settings.filePath);
        break;
    case 'T':
        ExpectTextField("the file path", &payload, settings.filePath.size() + 1, settings.filePath);
        break;
    case 'M':
        ExpectUuidAndDigit(&payload, settings, settings.recoveryMode);
        break;
    case 'I':
        ExpectTextField("the work item", &payload, 4, std::to_string(settings.workItemType));
        break;
    case 'A':
        ExpectUuidAndDigit(&payload, settings, settings.all ? 1 : 0);
        break;
    case 'B':
        ExpectCallbackPayload(payload, FindModelCallback(run.words, run.argumentIndex), settings.uuid);
        return "";
    case 'V':
        ExpectManualMove(&payload, settings);
        break;
    case 'G':
        ExpectGlobalExclusion(&payload, settings);
        break;
    default:
        break;
    }
    return payload;
}

std::string_view ExpectFrame(std::string_view request, uint32_t code)
{
    if (request.size() < 8) {
        Fail("the request has no whole header");
    }
    ExpectEqual("the request code", TakeNumber(&request, 4), code);
    const uint32_t length = TakeNumber(&request, 4);
    ExpectEqual("the payload's length", length, request.size());
    return request;
}

void ExpectRequest(const std::string &request, const ModelRun &run)
{
    ExpectEqual("the bytes behind the payload", ExpectPayload(ExpectFrame(request, run.code), run).size(), 0);
}
