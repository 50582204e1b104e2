// Feeds every file of the seed folders to a fuzz target, without a fuzzer: what was once found stays found. Takes the
// folders as its arguments. A folder that is missing or empty would make the test pass for nothing, so it is an error.

#include "input.h"

#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>

static void ReplayFile(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (file.bad() || !file.is_open()) {
        throw std::filesystem::filesystem_error("not readable", path, std::make_error_code(std::errc::io_error));
    }
    fprintf(stderr, "%s\n", path.c_str()); // the last one named is the one that fails
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(content.data()), content.size());
}

static size_t ReplayFolder(const char *folder)
{
    size_t count = 0;
    for (const std::filesystem::directory_entry &entry : std::filesystem::directory_iterator(folder)) {
        ReplayFile(entry.path());
        ++count;
    }
    if (count == 0) {
        throw std::filesystem::filesystem_error("no seeds", folder, std::error_code());
    }
    return count;
}

int main(int argumentCount, char **arguments)
{
    try {
        size_t count = 0;
        for (int i = 1; i < argumentCount; ++i) {
            count += ReplayFolder(arguments[i]);
        }
        fprintf(stderr, "%zu seeds replayed\n", count);
        return count == 0 ? 2 : 0;
    } catch (const std::exception &error) {
        fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
