// Fuzzes the two commands that read the words after the command word. An input is c for the callback words, or anything
// else for the rebalance words, and then the words.

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
