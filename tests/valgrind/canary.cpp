// Does what memcheck must notice: decides by a byte that nobody has set, and leaks. Run to show that a clean result
// means something.
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
