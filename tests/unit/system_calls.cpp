#include "system_calls.h"

#include <cstring>

extern "C" {
int __real_connect(int socket, const sockaddr *address, socklen_t length);
int __real_setsockopt(int socket, int level, int option, const void *value, socklen_t length);
ssize_t __real_send(int socket, const void *bytes, size_t length, int flags);
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);

int __wrap_connect(int socket, const sockaddr *address, socklen_t length);
int __wrap_setsockopt(int socket, int level, int option, const void *value, socklen_t length);
ssize_t __wrap_send(int socket, const void *bytes, size_t length, int flags);
void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t count, size_t size);
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
    void *memory = systemCalls.outOfMemory ? nullptr : __real_malloc(size);
    return memory == nullptr || !systemCalls.fillMemory ? memory : memset(memory, 0xaa, size);
}

void *__wrap_calloc(size_t count, size_t size)
{
    return systemCalls.outOfMemory ? nullptr : __real_calloc(count, size);
}
