// UUIDs and UUID lists: their sizes in memory and as text.
#ifndef PLAX_INCLUDE_UUID_H
#define PLAX_INCLUDE_UUID_H

#include <cstddef>
#include <cstdint>

// Identifies an object, component, disk, disk group, host or fault domain.
struct Uuid {
    uint8_t bytes[16];
};
static_assert(sizeof(Uuid) == 16);

// Characters of the text form: two hex digits a byte, grouped 8-4-4-4-12 by hyphens.
inline constexpr size_t kUuidTextLength = 36;

// A UUID list is a text: UUIDs joined by single commas. Each entry occupies its text and the comma or terminator after
// it.
inline constexpr size_t kUuidListEntrySize = kUuidTextLength + 1;
inline constexpr size_t kUuidListEntriesMax = 2560;
inline constexpr size_t kUuidListCapacity = kUuidListEntriesMax * kUuidListEntrySize;
static_assert(kUuidListCapacity == 94720);

#endif
