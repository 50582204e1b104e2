// Fuzzes what a run makes of the daemon's answer: the frame on its own, and every reply class.
//
// An input's first line holds letters. The first: P prints, C checks, N reads nothing, S streams, A streams for all
// objects, F receives a frame and does nothing with it. The others: a all objects, o to a file, b the file cannot be
// opened, q standard output is closed, t the daemon falls silent after its answer, r it resets the connection then, f
// the sending has failed. Behind the line stands the daemon's answer, piece by piece: p a pause; h a header, with four
// bytes of status and two of length; d and a length byte, that many bytes; r, two bytes of count and one to repeat; z,
// two bytes of count and two of where among so many letters a zero byte stands.

#include "input.h"
#include "reply_model.h"
#include "stage.h"

#include "frame.h"
#include "reply.h"

#include <cerrno>
#include <cstdlib>

static constexpr size_t kAnswerSizeMax = 400000;
static constexpr QRT_ReturnStatus kSendStatus = 0x2bad0068;

static Piece TakePiece(std::string_view *input)
{
    switch (TakeNumber(input, 1)) {
    case 'h': {
        const std::string header(TakeText(input, 4));
        return header + std::string(2, '\0') + std::string(TakeText(input, 2));
    }
    case 'd':
        return std::string(TakeText(input, TakeNumber(input, 1)));
    case 'r': {
        const size_t count = TakeNumber(input, 2);
        return std::string(count, static_cast<char>(TakeNumber(input, 1)));
    }
    case 'z': {
        Piece piece(TakeNumber(input, 2), 'z');
        const size_t zero = TakeNumber(input, 2);
        if (zero < piece.size()) {
            piece[zero] = '\0';
        }
        return piece;
    }
    default:
        return {};
    }
}

static std::vector<Piece> ReadAnswer(std::string_view input)
{
    std::vector<Piece> answer;
    size_t size = 0;
    while (!input.empty() && size < kAnswerSizeMax) {
        answer.push_back(TakePiece(&input));
        size += answer.back().size();
    }
    return answer;
}

static Surroundings ReadSurroundings(std::string_view letters, std::string_view input)
{
    Surroundings surroundings;
    surroundings.daemon.answer = ReadAnswer(input);
    surroundings.openError = Has(letters, 'b') ? EACCES : 0;
    surroundings.standardOutputClosed = Has(letters, 'q');
    if (Has(letters, 't')) {
        surroundings.daemon.endError = EAGAIN;
    } else if (Has(letters, 'r')) {
        surroundings.daemon.endError = ECONNRESET;
    }
    return surroundings;
}

static void CheckFrame(const Surroundings &surroundings)
{
    static constexpr uint32_t kUntouchedLength = 77;
    static char untouched[] = "untouched";
    uint32_t length = kUntouchedLength;
    char *payload = untouched;
    std::optional<std::string> content;
    bool terminated = true;
    const Traces traces = Perform(surroundings, [&](int socket) {
        const QRT_ReturnStatus status = ReceiveResponse(socket, &length, &payload);
        if (payload != nullptr && payload != untouched) {
            content = std::string(payload, length);
            terminated = payload[length] == '\0';
        }
        return status;
    });
    const ReceivedFrame expected = PredictFrame(surroundings.daemon);
    const bool hasPayload = expected.reply.has_value() && expected.reply->payload.has_value();
    ExpectEqual("the status", traces.status, expected.status);
    ExpectEqual("the messages", traces.warnings, expected.warnings);
    ExpectEqual("the length", length, expected.reply.has_value() ? expected.reply->length : kUntouchedLength);
    ExpectEqual("whether the payload is untouched", payload == untouched, !expected.reply.has_value());
    ExpectEqual("whether there is a payload", content.has_value(), hasPayload);
    ExpectEqual("the payload", content.value_or(""), hasPayload ? *expected.reply->payload : "");
    ExpectEqual("whether a zero byte follows the payload", terminated, true);
    ExpectEqual("the number of allocations handed on", traces.unreleased, hasPayload ? 1 : 0);
}

static ReplyClass ClassOf(char letter)
{
    switch (letter) {
    case 'P':
        return ReplyClass::Printed;
    case 'C':
        return ReplyClass::Checked;
    case 'S':
        return ReplyClass::Streamed;
    case 'A':
        return ReplyClass::StreamedForAllObjects;
    default:
        return ReplyClass::None;
    }
}

static void CheckClass(std::string_view letters, const Surroundings &surroundings)
{
    const char letter = Has("PCSA", letters[0]) ? letters[0] : 'N';
    CommandSettings settings;
    settings.all = Has(letters, 'a') ? 1 : 0;
    settings.outputPath = Has(letters, 'o') ? "output file" : nullptr;
    const QRT_ReturnStatus sendStatus = Has(letters, 'f') ? kSendStatus : 0;
    const Traces traces =
        Perform(surroundings, [&](int socket) { return HandleReply(ClassOf(letter), socket, sendStatus, settings); });
    ExpectConsequences(traces, sendStatus == 0
                                   ? PredictReply(letter, settings.all != 0, Has(letters, 'o'), surroundings)
                                   : PredictSendFailure(letter, sendStatus));
    if (sendStatus != 0 || letter == 'N') {
        ExpectEqual("the number of receives", traces.receives, 0);
    }
    ExpectEqual("what was sent", traces.request, "");
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view input = AsText(data, size);
    const std::string_view letters = TakeLine(&input);
    const Surroundings surroundings = ReadSurroundings(letters, input);
    // Gigabytes that a daemon announces and does not send would only slow the search down.
    if (letters.empty() || (Has("PCAF", letters[0]) && AnnouncedLength(surroundings.daemon) > kAnswerSizeMax)) {
        return 0;
    }
    if (letters[0] == 'F') {
        CheckFrame(surroundings);
    } else {
        CheckClass(letters, surroundings);
    }
    return 0;
}
