// Fuzzes the two commands that read the words behind the command word: the callback words and the rebalance words.
//
// An input's first line holds c for the callback or r for the rebalance, and a digit: the position of the first word
// that counts. The other lines are the argument vector.

#include "command_line_model.h"
#include "input.h"
#include "request_decoder.h"
#include "stage.h"

#include "senders.h"

#include <cstring>

static constexpr uint32_t kRebalanceCode = 10;
static constexpr uint32_t kCallbackCode = 31;

static std::vector<std::string> ReadWords(std::string_view input)
{
    std::vector<std::string> words;
    do {
        const std::string_view line = TakeLine(&input);
        words.emplace_back(line.substr(0, line.find('\0')));
    } while (!input.empty());
    return words;
}

static size_t FirstWord(std::string_view letters, size_t wordCount)
{
    for (size_t index = 1; index < wordCount && index <= 9; ++index) {
        if (Has(letters, static_cast<char>('0' + index))) {
            return index;
        }
    }
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view input = AsText(data, size);
    const std::string_view letters = TakeLine(&input);
    const std::vector<std::string> words = ReadWords(input);
    const size_t first = FirstWord(letters, words.size());
    const bool callback = Has(letters, 'c');
    const std::array<uint8_t, 16> uuid = {0, 0x12, 0x9a, 0xbc, 0xff, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0xf0};
    CommandSettings settings;
    memcpy(settings.uuid.bytes, uuid.data(), uuid.size());
    const uint32_t code = callback ? kCallbackCode : kRebalanceCode;
    ArgumentVector vector(words);
    const Traces traces = Perform({}, [&](int socket) {
        const Invocation invocation{CommandCode{code},       settings, vector.Count(), vector.pointers.data(),
                                    static_cast<int>(first), socket};
        return callback ? SendBlockCdbCbCommand(invocation) : SendProactiveRebalance(invocation);
    });
    ExpectEqual("the status", traces.status, 0);
    ExpectEqual("the messages", traces.warnings, "");
    ExpectEqual("the number of allocations left to process exit", traces.unreleased, 0);
    const std::string_view payload = ExpectFrame(traces.request, code);
    if (callback) {
        ExpectCallbackPayload(payload, FindModelCallback(words, first), uuid);
    } else {
        ExpectRebalancePayload(payload, ReadModelRebalance(words, first));
    }
    return 0;
}
