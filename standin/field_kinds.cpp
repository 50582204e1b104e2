// Most fields are numbers; the table lists the others.

#include "field_kinds.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <charconv>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <limits>

namespace standin {

using Json = nlohmann::json;

bool IsUuidText(std::string_view text, std::string_view digits)
{
    static constexpr std::string_view kForm = "00000000-0000-0000-0000-000000000000";
    const auto fits = [=](char place, char character) {
        return place == '-' ? character == '-' : digits.find(character) != std::string_view::npos;
    };
    return std::equal(kForm.begin(), kForm.end(), text.begin(), text.end(), fits);
}

std::string LowerCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char character) { return static_cast<char>(tolower(character)); });
    return text;
}

std::optional<uint64_t> WholeNumber(std::string_view text)
{
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return number;
}

// "nan" or "-nan" for the NaNs that these words produce on the command line; other NaNs show their bits.
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

nlohmann::ordered_json Real(double number)
{
    if (std::isfinite(number)) {
        return number;
    }
    return std::isnan(number) ? NanText(number) : number > 0 ? "inf" : "-inf";
}

// 2.0 equals 2.
static bool IsWholeNumber(const Json &value)
{
    return value.is_number() && value >= 0 && std::trunc(value.get<double>()) == value.get<double>();
}

static bool IsReal(const Json &value)
{
    static constexpr std::string_view kNan = "nan(0x0000000000000000)";
    if (!value.is_string()) {
        return value.is_number();
    }
    const auto &text = value.get_ref<const std::string &>();
    return text == "inf" || text == "-inf" || text == "nan" || text == "-nan" ||
           (text.starts_with("nan(0x") && text.size() == kNan.size());
}

static bool IsText(const Json &value)
{
    return value.is_string();
}

static bool IsUuid(const Json &value)
{
    return value.is_string() && IsUuidText(value.get_ref<const std::string &>(), kEitherCaseDigits);
}

static bool IsList(const Json &value)
{
    return value.is_array() && std::all_of(value.begin(), value.end(), IsText);
}

static constexpr FieldKind kNumber = {"a whole number", IsWholeNumber};
static constexpr FieldKind kReal = {R"(a number, "inf" or "nan")", IsReal};
static constexpr FieldKind kText = {"a text", IsText};
static constexpr FieldKind kUuid = {"a UUID", IsUuid};
static constexpr FieldKind kList = {"a list of texts", IsList};

namespace {

struct KindRow {
    std::string_view field;
    const FieldKind &kind;
};

} // namespace

static constexpr KindRow kRows[] = {
    {"uuid", kUuid},          {"json", kText},
    {"filePath", kText},      {"level", kText},
    {"uuidList", kList},      {"destinationList", kList},
    {"exclusionList", kList}, {"varianceThreshold", kReal},
};

const FieldKind &KindOf(std::string_view field)
{
    const auto *row = std::find_if(std::begin(kRows), std::end(kRows),
                                   [=](const KindRow &candidate) { return candidate.field == field; });
    return row == std::end(kRows) ? kNumber : row->kind;
}

} // namespace standin
