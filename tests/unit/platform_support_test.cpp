// The stand-alone platform support library, and the allocators that abort through it.

#include "platform_support.h"
#include "safe_allocation.h"
#include "system_calls.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

TEST(StatusText, OfEveryKind)
{
    EXPECT_STREQ(QRT_ReturnStatusToString(0), "Success");
    EXPECT_STREQ(QRT_ReturnStatusToString(1), "Status 0x00000001");
    EXPECT_STREQ(QRT_ReturnStatusToString(0x0bad0000), "Status 0x0bad0000");
    EXPECT_STREQ(QRT_ReturnStatusToString(0x0bad0001), "Failure");
    EXPECT_STREQ(QRT_ReturnStatusToString(0x0bad0002), "Status 0x0bad0002");
    EXPECT_STREQ(QRT_ReturnStatusToString(0x2bad0000), "Status 0x2bad0000");
    EXPECT_STREQ(QRT_ReturnStatusToString(0x2bad0001), "Operation not permitted");
    EXPECT_STREQ(QRT_ReturnStatusToString(0x2bad000b), "Resource temporarily unavailable");
    EXPECT_STREQ(QRT_ReturnStatusToString(0x2bad0020), "Broken pipe");
    EXPECT_STREQ(QRT_ReturnStatusToString(0x2bad0fff), "Unknown error 4095");
    EXPECT_STREQ(QRT_ReturnStatusToString(0x2bad1000), "Status 0x2bad1000");
    EXPECT_STREQ(QRT_ReturnStatusToString(0xabcdef01), "Status 0xabcdef01");
    EXPECT_STREQ(QRT_ReturnStatusToString(0xffffffff), "Status 0xffffffff");
}

TEST(Warning, IsWrittenExactlyAsFormatted)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    Warning("%s, %d%%\n", "a text", -5);
    Warning("no newline");
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "a text, -5%\nno newline");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(PanicDeathTest, WritesItsTextAndANewlineAndAborts)
{
    EXPECT_EXIT(Panic("%s:%d: it is over", "here", 7), testing::KilledBySignal(SIGABRT),
                testing::Eq("here:7: it is over\n"));
}

TEST(UtilSafeStrdup0, GivesACopyOfItsOwn)
{
    char text[] = "text";
    char *copy = UtilSafeStrdup0(text);
    ASSERT_NE(copy, text);
    text[0] = 'n';
    EXPECT_STREQ(copy, "text");
    free(copy);
}

TEST(UtilSafeStrdup0, GivesAnEmptyTextForAnEmptyText)
{
    char *copy = UtilSafeStrdup0("");
    EXPECT_STREQ(copy, "");
    free(copy);
}

// The byte after the end of the text is not readable.
TEST(UtilSafeStrdup0, ReadsNoFurtherThanTheTextGoes)
{
    const auto pageSize = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void *pages = mmap(nullptr, 2 * pageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    char *const end = static_cast<char *>(pages) + pageSize;
    ASSERT_EQ(mprotect(end, pageSize, PROT_NONE), 0);
    char *const text = end - sizeof "text";
    memcpy(text, "text", sizeof "text");
    char *copy = UtilSafeStrdup0(text);
    EXPECT_STREQ(copy, "text");
    free(copy);
    munmap(pages, 2 * pageSize);
}

TEST(UtilSafeStrdup0, GivesNullForNull)
{
    EXPECT_EQ(UtilSafeStrdup0(nullptr), nullptr);
}

void CopyWithoutMemory()
{
    const std::string text(64 << 20, 'x');
    const rlimit none{.rlim_cur = 0, .rlim_max = 0};
    setrlimit(RLIMIT_AS, &none);
    UtilSafeStrdup0(text.c_str());
}

TEST(UtilSafeStrdup0DeathTest, PanicsWithoutMemory)
{
    if (dlsym(RTLD_DEFAULT, "__asan_init") != nullptr) {
        GTEST_SKIP() << "the sanitizer reports the failed allocation itself";
    }
    EXPECT_EXIT(CopyWithoutMemory(), testing::KilledBySignal(SIGABRT),
                testing::Eq("PLAX_SafeMalloc:2888: Failed to allocate new memory\n"));
}

TEST(SafeAllocation, GivesMemory)
{
    void *memory = PLAX_SafeMalloc(100);
    EXPECT_NE(memory, nullptr);
    free(memory);
    char *zeros = static_cast<char *>(PLAX_SafeCalloc(20, 5));
    EXPECT_EQ(std::string(zeros, 100), std::string(100, '\0'));
    free(zeros);
}

void MallocWithoutMemory()
{
    systemCalls.outOfMemory = true;
    free(PLAX_SafeMalloc(1));
}

void CallocWithoutMemory()
{
    systemCalls.outOfMemory = true;
    free(PLAX_SafeCalloc(1, 1));
}

TEST(SafeAllocationDeathTest, PanicsWithoutMemory)
{
    EXPECT_EXIT(MallocWithoutMemory(), testing::KilledBySignal(SIGABRT),
                testing::Eq("PLAX_SafeMalloc:2888: Failed to allocate new memory\n"));
    EXPECT_EXIT(CallocWithoutMemory(), testing::KilledBySignal(SIGABRT),
                testing::Eq("PLAX_SafeCalloc:2898: Failed to allocate new memory\n"));
}

} // namespace
