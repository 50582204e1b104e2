// Fuzzes the parser of answers files. An input is a file. Either every error is reported, each on a line of its own, or
// every entry has an answer.

#include "input.h"

#include "answer_file.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <stdexcept>

static void Require(bool holds)
{
    if (!holds) {
        abort();
    }
}

static void Read(const std::string &path)
{
    try {
        for (const auto &[command, answers] : standin::ReadAnswerFile(path)) {
            for (const standin::AnswerEntry &entry : answers.entries) {
                Require(!entry.answers.empty());
            }
        }
    } catch (const std::runtime_error &error) {
        std::istringstream lines(error.what());
        std::string line;
        do {
            Require(getline(lines, line) && line.starts_with(path + ": ") && line.size() > path.size() + 2);
        } while (lines.peek() != EOF);
    }
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view text = AsText(data, size);
    // An answer may name a file, and some files never end, such as /dev/zero.
    if (text.find("file") != text.npos || Has(text, '\\')) {
        return 0;
    }
    const int file = memfd_create("answers", 0);
    Require(write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    Read("/proc/self/fd/" + std::to_string(file));
    close(file);
    return 0;
}
