// Replacements for functions of the C library, which let the tests observe calls or make them fail. The linker option
// --wrap puts them in place of the real functions, in the test program and in the tool's layers.
#ifndef PLAX_TESTS_UNIT_SYSTEM_CALLS_H
#define PLAX_TESTS_UNIT_SYSTEM_CALLS_H

#include <functional>

#include <sys/socket.h>

struct SystemCalls {
    // Each of these, if set, is called instead of the real function.
    std::function<int(int, const sockaddr *, socklen_t)> connect;
    std::function<int()> setsockopt;
    std::function<ssize_t(int, const void *, size_t, int)> send;
    // Makes malloc and calloc fail.
    bool outOfMemory = false;
    // Makes malloc fill memory with 0xaa, so that a byte that the code does not write is not zero by chance.
    bool fillMemory = true;
};

inline SystemCalls systemCalls;

// How many blocks malloc has given that were not freed. Freeing a block fails the test if the byte after it has
// changed.
size_t BlocksInUse();

#endif
