// The status that every function that sends to or receives from the daemon returns. The last one of a run becomes the
// exit status, of which a shell sees the low 8 bits.
#ifndef PLAX_INCLUDE_RETURN_STATUS_H
#define PLAX_INCLUDE_RETURN_STATUS_H

#include <cstdint>

using QRT_ReturnStatus = uint32_t;

inline constexpr QRT_ReturnStatus kStatusSuccess = 0;
// The tool's own failure: a usage error, or a connection that could not be set up.
inline constexpr QRT_ReturnStatus kStatusFailure = 0xbad0001;
// The status of a failed system call is this base plus its errno. All other values come from the daemon.
inline constexpr QRT_ReturnStatus kStatusSystemErrorBase = 0x2bad0000;

#endif
