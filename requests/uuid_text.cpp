// The text form of a UUID: 16 bytes in order, two hex digits each, grouped 8-4-4-4-12.

#include "uuid_text.h"

static bool BeginsGroup(size_t byte)
{
    return byte == 4 || byte == 6 || byte == 8 || byte == 10;
}

char *WriteUuidText(const Uuid &uuid, char *text)
{
    static constexpr char kDigits[] = "0123456789abcdef";
    for (size_t i = 0; i < sizeof uuid.bytes; ++i) {
        if (BeginsGroup(i)) {
            *text++ = '-';
        }
        *text++ = kDigits[uuid.bytes[i] >> 4];
        *text++ = kDigits[uuid.bytes[i] & 0x0f];
    }
    return text;
}
