// The callback-block request and its words.

#include "callback_words.h"
#include "frame.h"
#include "records.h"
#include "senders.h"
#include "uuid_text.h"

template <size_t count>
static void MatchWord(const CallbackWord (&words)[count], std::string_view argument, uint32_t *number)
{
    for (const CallbackWord &candidate : words) {
        if (candidate.word == argument) {
            *number = candidate.number;
        }
    }
}

// Writes "event:entry:UUID". Both numbers have one digit.
static void WriteCallbackText(uint32_t event, uint32_t entry, const Uuid &uuid, char *text)
{
    *text++ = static_cast<char>('0' + event);
    *text++ = ':';
    *text++ = static_cast<char>('0' + entry);
    *text++ = ':';
    WriteUuidText(uuid, text);
}

QRT_ReturnStatus SendBlockCdbCbCommand(const Invocation &invocation)
{
    uint32_t event = 0;
    uint32_t entry = 0;
    for (int i = invocation.argumentIndex; i < invocation.argumentCount; ++i) {
        MatchWord(kEventWords, invocation.arguments[i], &event);
        MatchWord(kEntryWords, invocation.arguments[i], &entry);
    }
    CallbackBlockRequest record{};
    WriteCallbackText(event, entry, invocation.settings.uuid, record.text);
    return SendCommand(invocation.socket, invocation.code, &record, sizeof record);
}
