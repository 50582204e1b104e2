// The full 32-bit status of each reply class: an exit status shows only the low 8 bits.

#include "broken_pipe.h"
#include "ended.h"
#include "reply.h"
#include "socket_pair.h"
#include "system_calls.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <string>

using namespace std::string_view_literals;

namespace {

Ended Handle(ReplyClass replyClass, const SocketPair &sockets, const CommandSettings &settings = {},
             QRT_ReturnStatus sendStatus = 0)
{
    const size_t blocks = BlocksInUse();
    Ended ended = Capture([&] { return HandleReply(replyClass, sockets.tool, sendStatus, settings); });
    EXPECT_EQ(BlocksInUse(), blocks);
    return ended;
}

TEST(Reply, StatusOfTheDaemonIsReturnedWhole)
{
    for (const ReplyClass replyClass : {ReplyClass::Printed, ReplyClass::Checked, ReplyClass::StreamedForAllObjects}) {
        const SocketPair sockets;
        sockets.Answer("\xff\xfe\xfd\xfc\0\0\0\4busy"sv);
        EXPECT_EQ(Handle(replyClass, sockets), (Ended{0xfffefdfc, "", "Error received: Status 0xfffefdfc: busy\n"}));
    }
}

TEST(Reply, StatusWithAZeroLowByteIsStillAnError)
{
    const SocketPair sockets;
    sockets.Answer("\0\0\1\0\0\0\0\0"sv);
    EXPECT_EQ(Handle(ReplyClass::Checked, sockets), (Ended{0x100, "", "Error received: Status 0x00000100: (null)\n"}));
}

TEST(Reply, ReceiveTimeoutIsWrapped)
{
    const Ended timedOut{0x2bad000b, "", "Error received: Resource temporarily unavailable: (null)\n"};
    for (const ReplyClass replyClass : {ReplyClass::Printed, ReplyClass::Checked, ReplyClass::StreamedForAllObjects}) {
        const SocketPair sockets;
        EXPECT_EQ(Handle(replyClass, sockets), timedOut);
    }
}

TEST(Reply, StreamTimeoutIsWrapped)
{
    const SocketPair sockets;
    sockets.Answer("so far"sv);
    EXPECT_EQ(Handle(ReplyClass::Streamed, sockets), (Ended{0x2bad000b, "so far", ""}));
    CommandSettings settings;
    settings.all = 1;
    EXPECT_EQ(Handle(ReplyClass::StreamedForAllObjects, sockets, settings), (Ended{0x2bad000b, "", ""}));
}

TEST(Reply, StreamEndsWithSuccess)
{
    SocketPair sockets;
    sockets.Answer("all of it"sv);
    sockets.CloseDaemon();
    EXPECT_EQ(Handle(ReplyClass::Streamed, sockets), (Ended{0, "all of it", ""}));
}

TEST(Reply, OutputFileThatCannotBeOpenedIsWrapped)
{
    const SocketPair sockets;
    CommandSettings settings;
    settings.outputPath = "/no-such-directory/out";
    EXPECT_EQ(Handle(ReplyClass::Streamed, sockets, settings), (Ended{0x2bad0002, "", ""}));
}

TEST(Reply, FailedWriteOfAPrintedReplyIsWrapped)
{
    const SocketPair sockets;
    sockets.Answer("\0\0\0\0\0\0\0\3abc"sv);
    testing::internal::CaptureStdout();
    const int kept = dup(STDOUT_FILENO);
    close(STDOUT_FILENO);
    const QRT_ReturnStatus status = HandleReply(ReplyClass::Printed, sockets.tool, 0, {});
    dup2(kept, STDOUT_FILENO);
    close(kept);
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), ""); // not even a newline
    EXPECT_EQ(status, 0x2bad0009U);
}

TEST(Reply, UnansweredCommandReadsNothing)
{
    const SocketPair sockets;
    sockets.Answer("\0\0\0\7\0\0\0\0"sv);
    EXPECT_EQ(Handle(ReplyClass::None, sockets), (Ended{0, "", ""}));
    char unread[16];
    EXPECT_EQ(recv(sockets.tool, unread, sizeof unread, MSG_DONTWAIT), 8);
}

TEST(Reply, FailedSendIsReturnedAndReportedByClass)
{
    const Ended said{0x2bad0020, "", "Sending command failed: Broken pipe\n"};
    const Ended unsaid{0x2bad0020, "", ""};
    CommandSettings all;
    all.all = 1;
    const SocketPair sockets;
    EXPECT_EQ(Handle(ReplyClass::Printed, sockets, {}, 0x2bad0020), said);
    EXPECT_EQ(Handle(ReplyClass::Checked, sockets, {}, 0x2bad0020), said);
    EXPECT_EQ(Handle(ReplyClass::StreamedForAllObjects, sockets, {}, 0x2bad0020), said);
    EXPECT_EQ(Handle(ReplyClass::StreamedForAllObjects, sockets, all, 0x2bad0020), said);
    EXPECT_EQ(Handle(ReplyClass::None, sockets, {}, 0x2bad0020), unsaid);
    EXPECT_EQ(Handle(ReplyClass::Streamed, sockets, {}, 0x2bad0020), unsaid);
}

bool BrokenPipeIsIgnored()
{
    struct sigaction current {};
    sigaction(SIGPIPE, nullptr, &current);
    return current.sa_handler == SIG_IGN;
}

TEST(BrokenPipe, InheritedDispositionComesBackWithAStream)
{
    for (const bool inheritedIgnored : {false, true}) {
        signal(SIGPIPE, inheritedIgnored ? SIG_IGN : SIG_DFL);
        IgnoreBrokenPipe();
        EXPECT_TRUE(BrokenPipeIsIgnored());

        SocketPair printed;
        printed.CloseDaemon();
        Handle(ReplyClass::Printed, printed);
        EXPECT_TRUE(BrokenPipeIsIgnored());

        SocketPair streamed;
        streamed.CloseDaemon();
        Handle(ReplyClass::Streamed, streamed);
        EXPECT_EQ(BrokenPipeIsIgnored(), inheritedIgnored);
    }
    signal(SIGPIPE, SIG_DFL);
}

} // namespace
