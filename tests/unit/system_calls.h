// The C library's functions that the tests watch, or let fail. The linker puts these in place of the real ones in the
// test program and in the rooms it is linked from (its option --wrap).
#ifndef PLAX_TESTS_UNIT_SYSTEM_CALLS_H
#define PLAX_TESTS_UNIT_SYSTEM_CALLS_H

#include <functional>

#include <sys/socket.h>

struct SystemCalls {
    // Where one of these is set, it is called instead of the real function.
    std::function<int(int, const sockaddr *, socklen_t)> connect;
    std::function<int()> setsockopt;
    std::function<ssize_t(int, const void *, size_t, int)> send;
    // Whether malloc and calloc have no more memory to give.
    bool outOfMemory = false;
    // Whether what malloc gives is full of 0xaa, so that a byte which the code forgets to write is not zero by luck.
    bool fillMemory = true;
};

inline SystemCalls systemCalls;

#endif
