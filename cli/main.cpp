// The entry.

#include "driver.h"

int main(int argumentCount, char **arguments)
{
    return static_cast<int>(RunTool(argumentCount, arguments));
}
