// Prints the completion for one shell: generate-completions bash|zsh|fish. With "tables" it prints what the completions
// are made from.

#include "shells.h"

#include <iostream>
#include <string_view>

struct OutputRow {
    std::string_view name;
    void (*write)(std::ostream &out);
};

static constexpr OutputRow kOutputs[] = {
    {"bash", WriteBash},
    {"zsh", WriteZsh},
    {"fish", WriteFish},
    {"tables", WriteTables},
};

int main(int argumentCount, char **arguments)
{
    const std::string_view wanted = argumentCount == 2 ? arguments[1] : "";
    for (const OutputRow &output : kOutputs) {
        if (output.name == wanted) {
            output.write(std::cout);
            std::cout.flush();
            return std::cout ? 0 : 1;
        }
    }
    std::cerr << "usage: generate-completions bash|zsh|fish|tables\n";
    return 1;
}
