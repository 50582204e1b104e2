#include "system_calls.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>

extern "C" {
int __real_connect(int socket, const sockaddr *address, socklen_t length);
int __real_setsockopt(int socket, int level, int option, const void *value, socklen_t length);
ssize_t __real_send(int socket, const void *bytes, size_t length, int flags);
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void __real_free(void *memory);

int __wrap_connect(int socket, const sockaddr *address, socklen_t length);
int __wrap_setsockopt(int socket, int level, int option, const void *value, socklen_t length);
ssize_t __wrap_send(int socket, const void *bytes, size_t length, int flags);
void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t count, size_t size);
void __wrap_free(void *memory);
}

static constexpr char kFill = '\xaa';

// The sizes of the blocks in use. Never destroyed, because blocks are freed until the process ends.
static std::map<void *, size_t> &Blocks()
{
    static auto &blocks = *new std::map<void *, size_t>;
    return blocks;
}

size_t BlocksInUse()
{
    return Blocks().size();
}

int __wrap_connect(int socket, const sockaddr *address, socklen_t length)
{
    return systemCalls.connect ? systemCalls.connect(socket, address, length) : __real_connect(socket, address, length);
}

int __wrap_setsockopt(int socket, int level, int option, const void *value, socklen_t length)
{
    return systemCalls.setsockopt ? systemCalls.setsockopt() : __real_setsockopt(socket, level, option, value, length);
}

ssize_t __wrap_send(int socket, const void *bytes, size_t length, int flags)
{
    return systemCalls.send ? systemCalls.send(socket, bytes, length, flags)
                            : __real_send(socket, bytes, length, flags);
}

void *__wrap_malloc(size_t size)
{
    void *memory = systemCalls.outOfMemory || size == SIZE_MAX ? nullptr : __real_malloc(size + 1);
    if (memory != nullptr) {
        Blocks()[memory] = size;
        memset(static_cast<char *>(memory) + size, kFill, 1);
    }
    return memory == nullptr || !systemCalls.fillMemory ? memory : memset(memory, kFill, size);
}

void *__wrap_calloc(size_t count, size_t size)
{
    return systemCalls.outOfMemory ? nullptr : __real_calloc(count, size);
}

void __wrap_free(void *memory)
{
    if (const auto block = Blocks().find(memory); block != Blocks().end()) {
        EXPECT_EQ(static_cast<const char *>(memory)[block->second], kFill) << "a byte after the block was written";
        Blocks().erase(block);
    }
    __real_free(memory);
}
