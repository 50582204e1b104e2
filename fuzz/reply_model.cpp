// The model of replies.

#include "reply_model.h"

#include <cerrno>
#include <cstdint>

static constexpr size_t kHeaderSize = 8;
static constexpr size_t kChunkSizeMax = 1023;

static std::string WholeAnswer(const DaemonScript &daemon)
{
    std::string whole;
    for (const Piece &piece : daemon.answer) {
        whole += piece;
    }
    return whole;
}

static uint32_t BigEndian(const std::string &bytes, size_t position)
{
    uint32_t number = 0;
    for (size_t i = 0; i < sizeof number; ++i) {
        number = number << 8 | static_cast<uint8_t>(bytes[position + i]);
    }
    return number;
}

// Header bytes that never come read as zero.
static std::string Header(const std::string &answer)
{
    std::string header = answer.substr(0, kHeaderSize);
    header.resize(kHeaderSize);
    return header;
}

uint32_t AnnouncedLength(const DaemonScript &daemon)
{
    return BigEndian(Header(WholeAnswer(daemon)), 4);
}

ReceivedFrame PredictFrame(const DaemonScript &daemon)
{
    const std::string answer = WholeAnswer(daemon);
    if (answer.empty() && daemon.endError != 0) {
        return {WrappedError(daemon.endError), "", std::nullopt};
    }
    const uint32_t status = BigEndian(Header(answer), 0);
    const uint32_t length = AnnouncedLength(daemon);
    if (length == 0) {
        return {status, "", Reply{0, std::nullopt}};
    }
    const std::string rest = answer.size() > kHeaderSize ? answer.substr(kHeaderSize, length) : "";
    if (rest.empty() && daemon.endError != 0) {
        // A failed receive is not told from a whole payload, and the bytes handed on are zero.
        return {status, "", Reply{length, std::string(length, '\0')}};
    }
    if (rest.size() < length) {
        return {0, "Failed to receive the complete UDS message sent. Please try again", std::nullopt};
    }
    return {status, "", Reply{length, rest}};
}

static Consequences PredictFramed(bool printed, const Surroundings &surroundings)
{
    const ReceivedFrame frame = PredictFrame(surroundings.daemon);
    const bool hasPayload = frame.reply.has_value() && frame.reply->payload.has_value();
    const std::string payload = hasPayload ? *frame.reply->payload : "";
    Consequences expected;
    expected.status = frame.status;
    expected.warnings = frame.warnings;
    if (frame.status != 0) {
        // The reason is a text: it ends at its first zero byte.
        const std::string reason = hasPayload ? payload.substr(0, payload.find('\0')) : "(null)";
        expected.warnings += "Error received: " + StatusText(frame.status) + ": " + reason + "\n";
        return expected;
    }
    expected.unreleased = hasPayload ? 1 : 0;
    if (printed && surroundings.standardOutputClosed) {
        expected.status = WrappedError(EBADF);
    } else if (printed) {
        expected.standardOutput = payload + "\n";
    }
    return expected;
}

static void AppendChunks(const Piece &piece, std::string *text)
{
    for (size_t start = 0; start < piece.size(); start += kChunkSizeMax) {
        const std::string chunk = piece.substr(start, kChunkSizeMax);
        *text += chunk.substr(0, chunk.find('\0'));
    }
}

static Consequences PredictStreamed(bool toFile, const Surroundings &surroundings)
{
    Consequences expected;
    if (toFile && surroundings.openError != 0) {
        expected.status = WrappedError(surroundings.openError);
        return expected;
    }
    const bool lost = !toFile && surroundings.standardOutputClosed;
    std::string text;
    for (const Piece &piece : surroundings.daemon.answer) {
        if (piece.empty()) {
            expected.writtenAtPauses.push_back(lost ? 0 : text.size());
        }
        AppendChunks(piece, &text);
    }
    if (!lost) {
        (toFile ? expected.outputFile : expected.standardOutput) = text;
    }
    expected.status = surroundings.daemon.endError == 0 ? 0 : WrappedError(surroundings.daemon.endError);
    return expected;
}

Consequences PredictReply(char commandClass, bool all, bool toFile, const Surroundings &surroundings)
{
    if (commandClass == 'N') {
        return {};
    }
    if (commandClass == 'S' || (commandClass == 'A' && all)) {
        return PredictStreamed(toFile, surroundings);
    }
    return PredictFramed(commandClass != 'C', surroundings);
}

Consequences PredictSendFailure(char commandClass, QRT_ReturnStatus sendStatus)
{
    Consequences expected;
    expected.status = sendStatus;
    if (commandClass != 'N' && commandClass != 'S') {
        expected.warnings = "Sending command failed: " + StatusText(sendStatus) + "\n";
    }
    return expected;
}

void ExpectConsequences(const Traces &traces, const Consequences &expected)
{
    ExpectEqual("whether the run was aborted", traces.aborted, false);
    ExpectEqual("the status", traces.status, expected.status);
    ExpectEqual("the messages", traces.warnings, expected.warnings);
    ExpectEqual("standard output", traces.standardOutput, expected.standardOutput);
    ExpectEqual("the output file", traces.outputFile, expected.outputFile);
    ExpectEqual("the number of allocations left to process exit", traces.unreleased, expected.unreleased);
    if (traces.writtenAtPauses != expected.writtenAtPauses) {
        Fail("text was held back while the daemon paused");
    }
}
