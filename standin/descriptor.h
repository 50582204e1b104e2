// A file descriptor that closes itself, reading whole files, and messages for system errors.
#ifndef PLAX_STANDIN_DESCRIPTOR_H
#define PLAX_STANDIN_DESCRIPTOR_H

#include <string>
#include <utility>

namespace standin {

class Descriptor {
public:
    explicit Descriptor(int number = -1) : number_(number) {}
    Descriptor(Descriptor &&other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Descriptor();

    [[nodiscard]] int Get() const
    {
        return number_;
    }
    void Close();

private:
    int number_;
};

// Opens /dev/null for reading on each standard descriptor that is closed. Otherwise a connection or a file would get
// its number, and messages would go there. Writing to it fails as it does to a closed descriptor.
void OccupyStandardDescriptors();

// Reads to the end of the file and returns 0, or the errno.
int ReadAll(const Descriptor &file, std::string *bytes);
int ReadFile(const std::string &path, std::string *bytes);

// "TEXT: text of the errno".
std::string SystemError(const std::string &text, int error);

// Prints a message to standard error, each of its lines with the program's name.
void Report(const std::string &message);

} // namespace standin

#endif
