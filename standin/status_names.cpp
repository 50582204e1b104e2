// The names of errno numbers come from the C library.

#include "status_names.h"

#include "return_status.h"

#include <cerrno>
#include <cstring>

namespace standin {

// Linux uses no higher errno number.
static constexpr uint32_t kErrnoMax = 4095;

std::string_view StatusName(uint32_t status)
{
    if (status == kStatusSuccess) {
        return "Success";
    }
    if (status == kStatusFailure) {
        return "Failure";
    }
    const uint32_t error = status - kStatusSystemErrorBase;
    const char *name = error >= 1 && error <= kErrnoMax ? strerrorname_np(static_cast<int>(error)) : nullptr;
    return name != nullptr ? name : "";
}

// Some numbers have a second name.
static int ErrnoWithSecondName(std::string_view name)
{
    return name == "ENOTSUP" ? ENOTSUP : name == "EWOULDBLOCK" ? EWOULDBLOCK : name == "EDEADLOCK" ? EDEADLOCK : 0;
}

std::optional<uint32_t> StatusNamed(std::string_view name)
{
    for (const uint32_t status : {kStatusSuccess, kStatusFailure}) {
        if (StatusName(status) == name) {
            return status;
        }
    }
    if (const int error = ErrnoWithSecondName(name); error != 0) {
        return kStatusSystemErrorBase + static_cast<uint32_t>(error);
    }
    for (uint32_t error = 1; error <= kErrnoMax; ++error) {
        if (!name.empty() && StatusName(kStatusSystemErrorBase + error) == name) {
            return kStatusSystemErrorBase + error;
        }
    }
    return std::nullopt;
}

} // namespace standin
