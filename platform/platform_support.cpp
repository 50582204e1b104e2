// The stand-alone platform support library: messages go to standard error.

#include "platform_support.h"

#include "safe_allocation.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

static constexpr QRT_ReturnStatus kSystemErrorMax = kStatusSystemErrorBase + 0xfff;

void Warning(const char *format, ...)
{
    va_list values;
    va_start(values, format);
    vfprintf(stderr, format, values);
    va_end(values);
}

void Panic(const char *format, ...)
{
    va_list values;
    va_start(values, format);
    vfprintf(stderr, format, values);
    va_end(values);
    fputc('\n', stderr);
    abort();
}

// Gives null for null, and panics as the safe allocators do when memory runs out.
char *UtilSafeStrdup0(const char *text)
{
    if (text == nullptr) {
        return nullptr;
    }
    const size_t size = strlen(text) + 1;
    return static_cast<char *>(memcpy(PLAX_SafeMalloc(size), text, size));
}

const char *QRT_ReturnStatusToString(QRT_ReturnStatus status)
{
    if (status == kStatusSuccess) {
        return "Success";
    }
    if (status == kStatusFailure) {
        return "Failure";
    }
    if (status > kStatusSystemErrorBase && status <= kSystemErrorMax) {
        return strerror(static_cast<int>(status - kStatusSystemErrorBase));
    }
    static char text[sizeof "Status 0x00000000"];
    snprintf(text, sizeof text, "Status 0x%08x", status);
    return text;
}
