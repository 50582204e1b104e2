// Takes a fuzzer's input apart. What is no longer there reads as zero or as an empty text.
#ifndef PLAX_FUZZ_INPUT_H
#define PLAX_FUZZ_INPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// What libFuzzer calls for each input; the replay program calls it for each seed. Returns 0.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

inline std::string_view AsText(const uint8_t *data, size_t size)
{
    return {reinterpret_cast<const char *>(data), size};
}

inline std::string_view TakeText(std::string_view *input, size_t length)
{
    const std::string_view text = input->substr(0, length);
    input->remove_prefix(text.size());
    return text;
}

// Takes a number of `size` bytes, the highest first.
inline uint32_t TakeNumber(std::string_view *input, size_t size)
{
    uint32_t number = 0;
    for (const char byte : TakeText(input, size)) {
        number = number << 8 | static_cast<uint8_t>(byte);
    }
    return number;
}

// Takes everything up to the next newline, which is dropped.
inline std::string_view TakeLine(std::string_view *input)
{
    const std::string_view line = TakeText(input, input->find('\n'));
    input->remove_prefix(std::min<size_t>(1, input->size()));
    return line;
}

inline bool Has(std::string_view letters, char letter)
{
    return letters.find(letter) != letters.npos;
}

// An argument vector as the system hands it over, and the texts that it points to. A zero byte ends a word.
struct ArgumentVector {
    explicit ArgumentVector(const std::vector<std::string> &words) : texts(words)
    {
        for (std::string &text : texts) {
            pointers.push_back(text.data());
        }
        pointers.push_back(nullptr);
    }

    ArgumentVector(const ArgumentVector &) = delete;
    ArgumentVector &operator=(const ArgumentVector &) = delete;

    int Count() const
    {
        return static_cast<int>(texts.size());
    }

    std::vector<std::string> texts;
    std::vector<char *> pointers;
};

#endif
