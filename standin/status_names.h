// The names of statuses: those of errno numbers, and two more.
#ifndef PLAX_STANDIN_STATUS_NAMES_H
#define PLAX_STANDIN_STATUS_NAMES_H

#include <cstdint>
#include <optional>
#include <string_view>

namespace standin {

// "Success", "Failure", or the name of the errno in the status, such as "EAGAIN"; empty when it has none.
std::string_view StatusName(uint32_t status);

std::optional<uint32_t> StatusNamed(std::string_view name);

} // namespace standin

#endif
