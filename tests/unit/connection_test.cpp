// The system calls of a connection: the receive timeout, set before connecting, and the address.

#include "command_settings.h"
#include "connection.h"
#include "driver.h"
#include "ended.h"
#include "system_calls.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <getopt.h>
#include <sys/resource.h>
#include <sys/un.h>

namespace {

struct Attempt {
    timeval receiveTimeout{};
    socklen_t addressLength = 0;
    sockaddr_un address{};
};

// Records the arguments of connect, and refuses the connection.
class ConnectionTest : public testing::Test {
protected:
    std::vector<Attempt> attempts;

    void SetUp() override
    {
        systemCalls.connect = [this](int socket, const sockaddr *address, socklen_t length) {
            Attempt attempt;
            socklen_t size = sizeof attempt.receiveTimeout;
            EXPECT_EQ(getsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &attempt.receiveTimeout, &size), 0);
            attempt.addressLength = length;
            memcpy(&attempt.address, address, std::min(size_t{length}, sizeof attempt.address));
            attempts.push_back(attempt);
            errno = ECONNREFUSED;
            return -1;
        };
    }

    void TearDown() override
    {
        systemCalls = {};
    }
};

Ended RunWords(std::vector<std::string> words)
{
    words.insert(words.begin(), "plax-tool");
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string &word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    optind = 0; // restarts getopt_long
    return Capture([&] { return RunTool(static_cast<int>(words.size()), arguments.data()); });
}

const Ended kRefused{0xbad0001, "", "connect error: Connection refused\n"};

nlohmann::json ExpectedCommands()
{
    return nlohmann::json::parse(std::ifstream(PLAX_EXPECTATION)).at("commands");
}

TEST_F(ConnectionTest, EveryCommandHasItsReceiveTimeoutWhenItConnects)
{
    for (const nlohmann::json &command : ExpectedCommands()) {
        auto words = command.at("least").get<std::vector<std::string>>();
        SCOPED_TRACE(words.back());
        // The option for the wait changes nothing.
        for (const std::vector<std::string> &wait : {std::vector<std::string>{}, {"-t", "0"}, {"-t", "1"}}) {
            words.insert(words.begin(), wait.begin(), wait.end());
            attempts.clear();
            EXPECT_EQ(RunWords(words), kRefused);
            ASSERT_EQ(attempts.size(), 1U) << "there is no second try";
            EXPECT_EQ(attempts[0].receiveTimeout.tv_sec, command.at("timeout"));
            EXPECT_EQ(attempts[0].receiveTimeout.tv_usec, 0);
        }
    }
}

TEST_F(ConnectionTest, AddressIsPassedWholeAndZeroed)
{
    RunWords({"stats", "-s", "/tmp/plaxd"});
    ASSERT_EQ(attempts.size(), 1U);
    EXPECT_EQ(attempts[0].addressLength, 110U);
    EXPECT_EQ(attempts[0].address.sun_family, AF_UNIX);
    EXPECT_EQ(std::string(attempts[0].address.sun_path, 108), "/tmp/plaxd" + std::string(98, '\0'));
}

TEST_F(ConnectionTest, PathIsTheWellKnownOneByDefault)
{
    RunWords({"stats"});
    ASSERT_EQ(attempts.size(), 1U);
    EXPECT_EQ(std::string(attempts[0].address.sun_path, 108), "/var/run/plaxd.uds" + std::string(90, '\0'));
}

TEST_F(ConnectionTest, PathIsCutAndAlwaysTerminated)
{
    for (const size_t length : {0U, 1U, 106U, 107U, 108U, 109U, 120U, 5000U}) {
        SCOPED_TRACE(length);
        attempts.clear();
        RunWords({"stats", "-s", std::string(length, 'p')});
        ASSERT_EQ(attempts.size(), 1U);
        const size_t kept = length < 107 ? length : 107;
        EXPECT_EQ(attempts[0].addressLength, 110U);
        EXPECT_EQ(std::string(attempts[0].address.sun_path, 108),
                  std::string(kept, 'p') + std::string(108 - kept, '\0'));
    }
}

TEST_F(ConnectionTest, TimeoutThatCannotBeSetEndsTheRun)
{
    systemCalls.setsockopt = [] {
        errno = ENOPROTOOPT;
        return -1;
    };
    EXPECT_EQ(RunWords({"stats"}), (Ended{0xbad0001, "", "set timeout error: Protocol not available\n"}));
    EXPECT_EQ(attempts.size(), 0U);
}

TEST_F(ConnectionTest, NoSocketIsMinusOne)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(OpenDaemonConnection("/tmp/plaxd", 20), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "connect error: Connection refused\n");
    systemCalls.setsockopt = [] {
        errno = ENOPROTOOPT;
        return -1;
    };
    testing::internal::CaptureStderr();
    EXPECT_EQ(OpenDaemonConnection("/tmp/plaxd", 20), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "set timeout error: Protocol not available\n");
}

TEST_F(ConnectionTest, SocketThatCannotBeMadeEndsTheRun)
{
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{.rlim_cur = 0, .rlim_max = limit.rlim_max};
    testing::internal::CaptureStderr();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const int socket = OpenDaemonConnection("/tmp/plaxd", 20);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "socket error: Too many open files\n");
    EXPECT_EQ(socket, -1);
    EXPECT_EQ(attempts.size(), 0U);
}

TEST_F(ConnectionTest, EveryUsageErrorIsTheToolsOwnFailure)
{
    const std::vector<std::string> usageErrors[] = {{},     {"-m8", "stats"},    {"-Z"},
                                                    {"-a"}, {"no-such-command"}, {"crawler"}};
    for (const std::vector<std::string> &words : usageErrors) {
        SCOPED_TRACE(testing::PrintToString(words));
        EXPECT_EQ(RunWords(words).status, 0xbad0001U);
    }
    EXPECT_EQ(RunWords({"-h"}).status, 0U);
    EXPECT_EQ(attempts.size(), 0U);
}

} // namespace
