// Fuzzes the two commands that read several words after the command word. An input starts with c for the callback words
// or with any other byte for the rebalance words; the words follow.

#include "input.h"
#include "run_property.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view input = AsText(data, size);
    const bool callback = TakeWord(&input) == "c";
    std::vector<std::string> words = {"plax-tool", "--", callback ? "block-cdb-cb" : "start-proactive-rebalance"};
    while (!input.empty()) {
        words.emplace_back(TakeWord(&input));
    }
    CheckRun({}, words);
    return 0;
}
