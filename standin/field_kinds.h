// The kinds of values that the fields of requests have in the JSON log.
#ifndef PLAX_STANDIN_FIELD_KINDS_H
#define PLAX_STANDIN_FIELD_KINDS_H

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace standin {

struct FieldKind {
    std::string_view due; // what a value must be
    // Whether the log may hold the value. UUIDs are lower-case in the log; here they need not be.
    bool (*holds)(const nlohmann::json &value);
};

const FieldKind &KindOf(std::string_view field);

inline constexpr std::string_view kLowerCaseDigits = "0123456789abcdef";
inline constexpr std::string_view kEitherCaseDigits = "0123456789abcdefABCDEF";

bool IsUuidText(std::string_view text, std::string_view digits);

std::string LowerCase(std::string text);

// The number, if the whole of `text` is a decimal number.
std::optional<uint64_t> WholeNumber(std::string_view text);

// JSON has no infinities and NaNs, so they become texts.
nlohmann::ordered_json Real(double number);

} // namespace standin

#endif
