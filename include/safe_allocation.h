// Allocate or abort.
#ifndef PLAX_INCLUDE_SAFE_ALLOCATION_H
#define PLAX_INCLUDE_SAFE_ALLOCATION_H

#include "platform_support.h"

#include <cstddef>
#include <cstdlib>

// The line numbers in the messages are fixed, so that programs that watch for them keep working when the code moves.
inline constexpr const char *kAllocationFailureFormat = "%s:%d: Failed to allocate new memory";
inline constexpr int kSafeMallocLine = 2888;
inline constexpr int kSafeCallocLine = 2898;

// Returns `size` bytes of unspecified content, or ends the process through Panic. The caller releases them with free.
inline void *PLAX_SafeMalloc(size_t size)
{
    void *memory = malloc(size);
    if (memory == nullptr) {
        Panic(kAllocationFailureFormat, "PLAX_SafeMalloc", kSafeMallocLine);
    }
    return memory;
}

// Returns `count` times `size` zero bytes, or ends the process through Panic. The caller releases them with free.
inline void *PLAX_SafeCalloc(size_t count, size_t size)
{
    void *memory = calloc(count, size);
    if (memory == nullptr) {
        Panic(kAllocationFailureFormat, "PLAX_SafeCalloc", kSafeCallocLine);
    }
    return memory;
}

#endif
