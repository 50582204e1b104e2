// The words by which block-cdb-cb names an event and an entry.
#ifndef PLAX_REQUESTS_CALLBACK_WORDS_H
#define PLAX_REQUESTS_CALLBACK_WORDS_H

#include <cstdint>
#include <string_view>

struct CallbackWord {
    std::string_view word;
    uint32_t number;
};

inline constexpr CallbackWord kEventWords[] = {{"update", 1}, {"add", 2}, {"delete", 3}};
// No word has the number 1: the daemon reads these numbers, so they are not renumbered. (test every_callback_word)
inline constexpr CallbackWord kEntryWords[] = {{"object", 2}, {"disk", 3}, {"node", 4}};

#endif
