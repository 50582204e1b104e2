// The one currency of outcomes: every function that sends to or reads from the daemon returns a QRT_ReturnStatus, and
// the run's last one becomes the exit status (of which a shell sees the low 8 bits).
#ifndef PLAX_INCLUDE_RETURN_STATUS_H
#define PLAX_INCLUDE_RETURN_STATUS_H

#include <cstdint>

using QRT_ReturnStatus = uint32_t;

inline constexpr QRT_ReturnStatus kStatusSuccess = 0;
// The tool's own failure: usage errors and a connection that could not be set up.
inline constexpr QRT_ReturnStatus kStatusFailure = 0xbad0001;
// Added to an errno to make the status of a failed system call. Any other value comes from the daemon.
inline constexpr QRT_ReturnStatus kStatusSystemErrorBase = 0x2bad0000;

#endif
