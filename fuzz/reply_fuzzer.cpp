// Fuzzes the handling of the daemon's answer: the frame alone, and every reply class.
//
// An input begins with letters, which end at a blank. The first: P prints, C checks, N reads nothing, S streams, A
// streams for all objects, F only receives a frame. The others: a all objects, o output file, b the file cannot be
// opened, q standard output is closed, t the daemon is silent after its answer, r it resets the connection after its
// answer, f sending has failed. The pieces of the daemon's answer follow: p a pause; h a header, with four bytes of
// status and two of length; d and a length byte, that many bytes; r, two bytes of count and one byte to repeat; z, two
// bytes of count and two of position: that many letters with a zero byte at the position.

#include "harness.h"
#include "input.h"

#include "frame.h"
#include "reply.h"

#include <cerrno>
#include <map>
#include <optional>

static constexpr size_t kAnswerSizeMax = 400000;
static constexpr size_t kHeaderSize = 8;
static constexpr size_t kChunkSizeMax = 1023;
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
    surroundings.answer = ReadAnswer(input);
    surroundings.openError = Has(letters, 'b') ? EACCES : 0;
    surroundings.standardOutputClosed = Has(letters, 'q');
    if (Has(letters, 't')) {
        surroundings.endError = EAGAIN;
    } else if (Has(letters, 'r')) {
        surroundings.endError = ECONNRESET;
    }
    return surroundings;
}

// ---- The expected outcome, computed from the whole answer and not call by call ----

static QRT_ReturnStatus WrappedError(int error)
{
    return 0x2bad0000 + static_cast<uint32_t>(error);
}

// The result of receiving a frame.
struct Frame {
    QRT_ReturnStatus status = 0;
    uint32_t announced = 0;
    std::string warnings;
    bool received = false;              // otherwise the receiving function does not set its outputs
    std::optional<std::string> payload; // none for length 0
};

static Frame PredictFrame(const Surroundings &surroundings)
{
    std::string answer;
    for (const Piece &piece : surroundings.answer) {
        answer += piece;
    }
    if (answer.empty() && surroundings.endError != 0) {
        return {WrappedError(surroundings.endError), 0, "", false, {}};
    }
    answer.resize(std::max(answer.size(), kHeaderSize)); // missing header bytes read as zero
    std::string_view rest = answer;
    const uint32_t status = TakeNumber(&rest, 4);
    const uint32_t length = TakeNumber(&rest, 4);
    if (length == 0) {
        return {status, length, "", true, {}};
    }
    if (rest.empty() && surroundings.endError != 0) {
        // A failed receive counts as a whole payload of zero bytes.
        return {status, length, "", true, std::string(std::min<size_t>(length, kAnswerSizeMax), '\0')};
    }
    if (rest.size() < length) {
        return {0, length, "Failed to receive the complete UDS message sent. Please try again", false, {}};
    }
    return {status, length, "", true, std::string(rest.substr(0, length))};
}

static Traces PredictFramed(bool printed, const Surroundings &surroundings)
{
    const Frame frame = PredictFrame(surroundings);
    const std::string payload = frame.payload.value_or("");
    Traces expected{.status = frame.status, .warnings = frame.warnings, .received = true};
    if (frame.status != 0) {
        // The reason ends at its first zero byte.
        const std::string reason = frame.payload ? payload.substr(0, payload.find('\0')) : "(null)";
        expected.warnings += "Error received: " + StatusText(frame.status) + ": " + reason + "\n";
        return expected;
    }
    expected.unreleased = frame.payload ? 1 : 0;
    if (printed && surroundings.standardOutputClosed) {
        expected.status = WrappedError(EBADF);
    } else if (printed) {
        expected.standardOutput = payload + "\n";
    }
    return expected;
}

static Traces PredictStreamed(bool toFile, const Surroundings &surroundings)
{
    if (toFile && surroundings.openError != 0) {
        return {.status = WrappedError(surroundings.openError)};
    }
    Traces expected{.status = surroundings.endError == 0 ? 0 : WrappedError(surroundings.endError), .received = true};
    const bool lost = !toFile && surroundings.standardOutputClosed;
    std::string text;
    for (const Piece &piece : surroundings.answer) {
        if (piece.empty()) {
            expected.writtenAtPauses.push_back(lost ? 0 : text.size());
        }
        for (size_t start = 0; start < piece.size(); start += kChunkSizeMax) {
            const std::string chunk = piece.substr(start, kChunkSizeMax);
            text += chunk.substr(0, chunk.find('\0'));
        }
    }
    (toFile ? expected.outputFile : expected.standardOutput) = lost ? "" : text;
    return expected;
}

static Traces PredictSendFailure(char letter)
{
    const bool reported = Has("PCA", letter);
    return {.status = kSendStatus,
            .warnings = reported ? "Sending command failed: " + StatusText(kSendStatus) + "\n" : ""};
}

static Traces Predict(std::string_view letters, const Surroundings &surroundings)
{
    const char letter = letters[0];
    if (Has(letters, 'f')) {
        return PredictSendFailure(letter);
    }
    if (letter == 'S' || (letter == 'A' && Has(letters, 'a'))) {
        return PredictStreamed(Has(letters, 'o'), surroundings);
    }
    return Has("PCA", letter) ? PredictFramed(letter != 'C', surroundings) : Traces{};
}

// ---- The runs ----

static void CheckFrame(const Surroundings &surroundings)
{
    static char untouched[] = "untouched";
    uint32_t length = 77;
    char *payload = untouched;
    const Traces traces = Perform(surroundings, [&](int socket) { return ReceiveResponse(socket, &length, &payload); });
    const Frame frame = PredictFrame(surroundings);
    ExpectTraces(
        traces,
        {.status = frame.status, .warnings = frame.warnings, .received = true, .unreleased = frame.payload ? 1U : 0U});
    ExpectEqual("the length", length, frame.received ? frame.announced : 77);
    if (!frame.received || !frame.payload) {
        ExpectEqual("whether there is no payload", payload == (frame.received ? nullptr : untouched), true);
    } else {
        ExpectEqual("the payload and a zero byte", std::string(payload, length + size_t{1}), *frame.payload + '\0');
    }
}

static ReplyClass ClassOf(char letter)
{
    static const std::map<char, ReplyClass> classes = {{'P', ReplyClass::Printed},
                                                       {'C', ReplyClass::Checked},
                                                       {'S', ReplyClass::Streamed},
                                                       {'A', ReplyClass::StreamedForAllObjects}};
    const auto found = classes.find(letter);
    return found == classes.end() ? ReplyClass::None : found->second;
}

static void CheckClass(std::string_view letters, const Surroundings &surroundings)
{
    CommandSettings settings;
    settings.all = Has(letters, 'a') ? 1 : 0;
    settings.outputPath = Has(letters, 'o') ? "output file" : nullptr;
    const auto handle = [&](int socket) {
        return HandleReply(ClassOf(letters[0]), socket, Has(letters, 'f') ? kSendStatus : 0, settings);
    };
    ExpectTraces(Perform(surroundings, handle), Predict(letters, surroundings));
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view input = AsText(data, size);
    const std::string_view letters = TakeWord(&input);
    const Surroundings surroundings = ReadSurroundings(letters, input);
    // Allocating gigabytes for an announced length would only slow the search down.
    if (letters.empty() || (Has("PCAF", letters[0]) && PredictFrame(surroundings).announced > kAnswerSizeMax)) {
        return 0;
    }
    if (letters[0] == 'F') {
        CheckFrame(surroundings);
    } else {
        CheckClass(letters, surroundings);
    }
    return 0;
}
