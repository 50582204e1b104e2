// Branches on an unset byte, and leaks: memcheck must report both, or its clean results mean nothing.
#include <cstdio>
#include <cstdlib>

int main(int argumentCount, char ** /*arguments*/)
{
    auto *leaked = static_cast<volatile char *>(malloc(2));
    if (argumentCount > 1 && leaked[1] == 'x') {
        puts("x");
    }
    return 0;
}
