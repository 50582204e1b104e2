// Runs a fuzz target on every file of the seed directories, its arguments, so that old findings stay fixed. A directory
// that is missing or empty is an error: the test would pass without checking anything.

#include "input.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

static void ReplayFile(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    file.exceptions(std::ios::badbit | std::ios::failbit);
    const std::string content{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    fprintf(stderr, "%s\n", path.c_str()); // the last one printed is the one that fails
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(content.data()), content.size());
}

static void ReplayDirectory(const char *directory)
{
    if (std::filesystem::is_empty(directory)) {
        throw std::runtime_error(std::string("no seeds in ") + directory);
    }
    for (const std::filesystem::directory_entry &entry : std::filesystem::directory_iterator(directory)) {
        ReplayFile(entry.path());
    }
}

int main(int argumentCount, char **arguments)
{
    try {
        for (int i = 1; i < argumentCount; ++i) {
            ReplayDirectory(arguments[i]);
        }
        return argumentCount > 1 ? 0 : 2;
    } catch (const std::exception &error) {
        fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
