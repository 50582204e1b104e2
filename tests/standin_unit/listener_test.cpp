#include "listener.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace standin {
namespace {

TEST(Listener, AnExceptionLeavesNoSocketFile)
{
    const std::string path = testing::TempDir() + "listener_test.uds";
    try {
        const Listener listener(path, 0600);
        ASSERT_TRUE(std::filesystem::is_socket(path));
        throw std::runtime_error("the server failed");
    } catch (const std::runtime_error &error) {
        ASSERT_STREQ(error.what(), "the server failed");
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

} // namespace
} // namespace standin
