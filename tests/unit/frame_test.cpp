// Frames in both directions, and statuses made from errnos.

#include "frame.h"
#include "socket_pair.h"
#include "system_calls.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

using namespace std::string_literals;
using namespace std::string_view_literals;

namespace {

TEST(ErrnoToStatus, WrapsEitherSign)
{
    EXPECT_EQ(ErrnoToStatus(0), 0U);
    EXPECT_EQ(ErrnoToStatus(1), 0x2bad0001U);
    EXPECT_EQ(ErrnoToStatus(-1), 0x2bad0001U);
    EXPECT_EQ(ErrnoToStatus(11), 0x2bad000bU);
    EXPECT_EQ(ErrnoToStatus(-11), 0x2bad000bU);
    EXPECT_EQ(ErrnoToStatus(4095), 0x2bad0fffU);
    EXPECT_EQ(ErrnoToStatus(-4095), 0x2bad0fffU);
    EXPECT_EQ(ErrnoToStatus(INT_MAX), 0xabacffffU);
    EXPECT_EQ(ErrnoToStatus(-INT_MAX), 0xabacffffU);
    EXPECT_EQ(ErrnoToStatus(INT_MIN), 0xabad0000U);
}

struct Sent {
    int socket;
    std::string bytes; // at most 64 of them
    size_t length;
    int flags;

    bool operator==(const Sent &) const = default;
};

constexpr int kSocket = 77;

// Records every send and returns the next of `results`: a count, or minus an errno.
class SendCommandTest : public testing::Test {
protected:
    std::vector<Sent> sent;
    std::vector<ssize_t> results;

    void SetUp() override
    {
        systemCalls.send = [this](int socket, const void *bytes, size_t length, int flags) {
            const char *text = static_cast<const char *>(bytes);
            sent.push_back({socket, std::string(text, length < 64 ? length : 64), length, flags});
            const ssize_t result = results.at(sent.size() - 1);
            errno = result < 0 ? static_cast<int>(-result) : 0;
            return result < 0 ? ssize_t{-1} : result;
        };
    }

    void TearDown() override
    {
        systemCalls = {};
    }
};

TEST_F(SendCommandTest, HeaderAlone)
{
    results = {8};
    EXPECT_EQ(SendCommand(kSocket, CommandCode{0x01020304}, nullptr, 0), 0U);
    EXPECT_EQ(sent, (std::vector<Sent>{{kSocket, "\1\2\3\4\0\0\0\0"s, 8, 0}}));
}

TEST_F(SendCommandTest, HeaderAndPayloadAreOneSendEachWithoutFlags)
{
    results = {8, 3};
    EXPECT_EQ(SendCommand(kSocket, CommandCode{34}, "abc", 3), 0U);
    EXPECT_EQ(sent, (std::vector<Sent>{{kSocket, "\0\0\0\x22\0\0\0\3"s, 8, 0}, {kSocket, "abc", 3, 0}}));
}

TEST_F(SendCommandTest, LengthTravelsAsItsLow32Bits)
{
    const std::string payload(64, 'p');
    const size_t length = 0x123456789;
    results = {8, 1};
    EXPECT_EQ(SendCommand(kSocket, CommandCode{1}, payload.data(), length), 0U);
    EXPECT_EQ(sent, (std::vector<Sent>{{kSocket, "\0\0\0\1\x23\x45\x67\x89"s, 8, 0}, {kSocket, payload, length, 0}}));
}

TEST_F(SendCommandTest, PayloadIsSentWhenTheLow32BitsOfItsLengthAreZero)
{
    const std::string payload(64, 'p');
    const size_t length = 0x100000000;
    results = {8, 1};
    EXPECT_EQ(SendCommand(kSocket, CommandCode{1}, payload.data(), length), 0U);
    EXPECT_EQ(sent, (std::vector<Sent>{{kSocket, "\0\0\0\1\0\0\0\0"s, 8, 0}, {kSocket, payload, length, 0}}));
}

TEST_F(SendCommandTest, FailedHeaderEndsTheSending)
{
    results = {-EPIPE};
    EXPECT_EQ(SendCommand(kSocket, CommandCode{34}, "abc", 3), 0x2bad0020U);
    EXPECT_EQ(sent.size(), 1U);
}

TEST_F(SendCommandTest, FailedPayloadIsAnError)
{
    results = {8, -ECONNRESET};
    EXPECT_EQ(SendCommand(kSocket, CommandCode{34}, "abc", 3), 0x2bad0068U);
    EXPECT_EQ(sent.size(), 2U);
}

TEST_F(SendCommandTest, InterruptedSendIsAnErrorAndNotRepeated)
{
    results = {-EINTR};
    EXPECT_EQ(SendCommand(kSocket, CommandCode{34}, "abc", 3), 0x2bad0004U);
    EXPECT_EQ(sent.size(), 1U);
}

TEST_F(SendCommandTest, ShortSendsAreNeitherNoticedNorRepeated)
{
    results = {5, 0};
    EXPECT_EQ(SendCommand(kSocket, CommandCode{34}, "abc", 3), 0U);
    EXPECT_EQ(sent.size(), 2U);
}

// The result of ReceiveResponse, and its outputs, which held 99 and the address of a text before the call.
struct Received {
    QRT_ReturnStatus status;
    uint32_t length;
    std::string payload; // with the byte after it in memory; or a word
    std::string message;

    bool operator==(const Received &) const = default;
};

Received Receive(const SocketPair &sockets)
{
    const size_t blocks = BlocksInUse();
    char before[] = "before";
    char *payload = before;
    Received received{.status = 0, .length = 99, .payload = "untouched", .message = ""};
    testing::internal::CaptureStderr();
    received.status = ReceiveResponse(sockets.tool, &received.length, &payload);
    received.message = testing::internal::GetCapturedStderr();
    if (payload == nullptr) {
        received.payload = "null";
    } else if (payload != before) {
        received.payload.assign(payload, size_t{received.length} + 1);
        free(payload);
    }
    EXPECT_EQ(BlocksInUse(), blocks);
    return received;
}

const Received kIncomplete{0, 99, "untouched", "Failed to receive the complete UDS message sent. Please try again"};

TEST(ReceiveResponse, GivesStatusLengthAndPayloadFollowedByZero)
{
    const SocketPair sockets;
    sockets.Answer("\1\2\3\4\0\0\0\5a\0b\xff\n"sv);
    EXPECT_EQ(Receive(sockets), (Received{0x01020304, 5, "a\0b\xff\n\0"s, ""}));
}

TEST(ReceiveResponse, TakesNoMoreThanTheFrame)
{
    const SocketPair sockets;
    sockets.Answer("\0\0\0\0\0\0\0\2abrest"sv);
    EXPECT_EQ(Receive(sockets), (Received{0, 2, "ab\0"s, ""}));
    char rest[10];
    EXPECT_EQ(std::string(rest, static_cast<size_t>(read(sockets.tool, rest, sizeof rest))), "rest");
}

TEST(ReceiveResponse, GivesNullForNoPayload)
{
    const SocketPair sockets;
    sockets.Answer("\0\0\0\7\0\0\0\0"sv);
    EXPECT_EQ(Receive(sockets), (Received{7, 0, "null", ""}));
}

TEST(ReceiveResponse, ReadsAClosedConnectionAsSuccess)
{
    SocketPair sockets;
    sockets.CloseDaemon();
    EXPECT_EQ(Receive(sockets), (Received{0, 0, "null", ""}));
}

TEST(ReceiveResponse, ReadsMissingHeaderBytesAsZero)
{
    SocketPair sockets;
    sockets.Answer("\1\2\3"sv);
    sockets.CloseDaemon();
    EXPECT_EQ(Receive(sockets), (Received{0x01020300, 0, "null", ""}));
}

TEST(ReceiveResponse, LeavesOutputsUntouchedWhenTheHeaderDoesNotCome)
{
    const SocketPair sockets;
    EXPECT_EQ(Receive(sockets), (Received{0x2bad000b, 99, "untouched", ""}));
}

TEST(ReceiveResponse, LeavesOutputsUntouchedWhenThePayloadIsIncomplete)
{
    for (const std::string_view status : {"\0\0\0\0"sv, "\0\0\0\7"sv}) {
        SocketPair sockets;
        sockets.Answer(status);
        sockets.Answer("\0\0\0\5abcd"sv);
        sockets.CloseDaemon();
        EXPECT_EQ(Receive(sockets), kIncomplete);
    }
}

TEST(ReceiveResponse, TakesAPayloadThatNeverBeginsBeforeTheCloseForIncomplete)
{
    SocketPair sockets;
    sockets.Answer("\0\0\0\7\0\0\0\5"sv);
    sockets.CloseDaemon();
    EXPECT_EQ(Receive(sockets), kIncomplete);
}

// As a signed number, this length would be -1, the result of a failed receive.
TEST(ReceiveResponse, TakesTheLargestLengthForWhatItIs)
{
    SocketPair sockets;
    sockets.Answer("\0\0\0\7\xff\xff\xff\xff"sv);
    sockets.CloseDaemon();
    systemCalls.fillMemory = false; // filling would touch gigabytes
    const Received received = Receive(sockets);
    systemCalls = {};
    EXPECT_EQ(received, kIncomplete);
}

TEST(ReceiveResponse, GivesZerosWhenThePayloadsReceiveFails)
{
    const SocketPair sockets; // nothing follows the header, so the receive times out
    sockets.Answer("\0\0\0\7\0\0\0\5"sv);
    EXPECT_EQ(Receive(sockets), (Received{7, 5, std::string(6, '\0'), ""}));
}

void ReceiveWithoutMemory()
{
    const SocketPair sockets;
    sockets.Answer("\0\0\0\0\0\0\0\5abcde"sv);
    uint32_t length = 0;
    char *payload = nullptr;
    systemCalls.outOfMemory = true;
    ReceiveResponse(sockets.tool, &length, &payload);
}

TEST(ReceiveResponseDeathTest, PanicsWithoutMemory)
{
    EXPECT_EXIT(ReceiveWithoutMemory(), testing::KilledBySignal(SIGABRT),
                testing::Eq("PLAX_SafeMalloc:2888: Failed to allocate new memory\n"));
}

} // namespace
