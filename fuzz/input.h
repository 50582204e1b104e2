// Reads values from a fuzzer's input. After its end, values are zero or empty.
#ifndef PLAX_FUZZ_INPUT_H
#define PLAX_FUZZ_INPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

// libFuzzer calls it for each input, and the replay program for each seed. Returns 0.
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

// Takes a big-endian number of `size` bytes.
inline uint32_t TakeNumber(std::string_view *input, size_t size)
{
    uint32_t number = 0;
    for (const char byte : TakeText(input, size)) {
        number = number << 8 | static_cast<uint8_t>(byte);
    }
    return number;
}

// Takes a word up to a blank, which is dropped. A zero byte cuts the word.
inline std::string_view TakeWord(std::string_view *input)
{
    const std::string_view word = TakeText(input, input->find(' '));
    input->remove_prefix(std::min<size_t>(1, input->size()));
    return word.substr(0, word.find('\0'));
}

inline bool Has(std::string_view letters, char letter)
{
    return letters.find(letter) != letters.npos;
}

#endif
