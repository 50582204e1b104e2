// Files are read with plain system calls, for which reading a directory is an error like any other.

#include "descriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

namespace standin {

static constexpr const char *kPrefix = "plaxd-standin: ";

Descriptor::~Descriptor()
{
    Close();
}

void Descriptor::Close()
{
    if (number_ >= 0) {
        close(std::exchange(number_, -1));
    }
}

void OccupyStandardDescriptors()
{
    int opened = 0;
    while ((opened = open("/dev/null", O_RDONLY)) >= 0 && opened <= STDERR_FILENO) {
    }
    Descriptor(opened).Close();
}

int ReadAll(const Descriptor &file, std::string *bytes)
{
    char piece[65536];
    ssize_t count = 0;
    while ((count = read(file.Get(), piece, sizeof piece)) > 0) {
        bytes->append(piece, static_cast<size_t>(count));
    }
    return count == 0 ? 0 : errno;
}

int ReadFile(const std::string &path, std::string *bytes)
{
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return file.Get() < 0 ? errno : ReadAll(file, bytes);
}

std::string SystemError(const std::string &text, int error)
{
    return text + ": " + std::generic_category().message(error);
}

void Report(const std::string &message)
{
    std::string text = kPrefix;
    for (const char character : message) {
        text += character;
        text += character == '\n' ? kPrefix : "";
    }
    fprintf(stderr, "%s\n", text.c_str());
}

} // namespace standin
