// The answer book: answers from a file that replace the built-in ones.

#include "answer_file.h"
#include "protocol_table.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

namespace standin {

using std::chrono::milliseconds;

namespace {

class AnswerFile : public testing::Test {
protected:
    AnswerFile() : path_(std::filesystem::path(testing::TempDir()) / ("answers-" + std::to_string(getpid()))) {}
    ~AnswerFile() override
    {
        std::filesystem::remove(path_);
    }
    AnswerBook Read(const char *content)
    {
        std::ofstream(path_) << content;
        return ReadAnswerFile(path_);
    }

private:
    std::filesystem::path path_;
};

} // namespace

TEST_F(AnswerFile, AllValues)
{
    const AnswerBook book = Read(R"({"$schema": "x", "answers": {"crawler": {"status": "0x0bad0001", "delayMs": 7,
        "pieces": [{"text": "ab"}, {"text": "c", "pauseMs": 9}], "fault": "announce-more", "faultBytes": 4}}})");
    const std::vector<Answer> &answers = book.find("crawler")->second.entries.at(0).answers;
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].status, 0x0bad0001U);
    EXPECT_EQ(answers[0].delay, milliseconds(7));
    ASSERT_EQ(answers[0].pieces.size(), 2U);
    EXPECT_EQ(answers[0].pieces[0].bytes, "ab");
    EXPECT_EQ(answers[0].pieces[0].pause, milliseconds(0));
    EXPECT_EQ(answers[0].pieces[1].bytes, "c");
    EXPECT_EQ(answers[0].pieces[1].pause, milliseconds(9));
    EXPECT_EQ(answers[0].fault, Fault::AnnounceMore);
    EXPECT_EQ(answers[0].faultBytes, 4U);
    EXPECT_EQ(PayloadSize(answers[0]), 3U);
}

TEST_F(AnswerFile, TextMayHoldAnyCharacter)
{
    const AnswerBook book = Read(R"({"answers": {"stats": {"text": "\u0000\u00e4\n"}}})");
    EXPECT_EQ(book.find("stats")->second.entries.at(0).answers[0].pieces[0].bytes, std::string("\0\xc3\xa4\n", 4));
}

TEST_F(AnswerFile, CommandsLeftOutKeepTheirAnswer)
{
    const AnswerBook book = Read(R"({"answers": {}})");
    EXPECT_EQ(book.size(), AllCommands().size() + 1) << "one command has an answer for all objects besides";
    EXPECT_EQ(book.find("fix-concats")->second.builtIn.pieces[0].bytes, "0 concats to fix");
}

TEST_F(AnswerFile, NoErrorIsLeftOut)
{
    try {
        Read(R"({"answers": {"nonsense": {}, "stats": 5, "crawler": [{}, {"fault": 1}]}})");
        FAIL() << "the errors went unnoticed";
    } catch (const std::runtime_error &error) {
        const std::string text = error.what();
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
    }
}

TEST_F(AnswerFile, NullIsNoAnswers)
{
    EXPECT_THROW(Read("null"), std::runtime_error);
}

TEST_F(AnswerFile, NumberTooLargeHasItsPlace)
{
    try {
        Read(R"({"answers": {"stats": [{}, {"pieces": [{"text": "a", "pauseMs": 1e999}]}]}})");
        FAIL() << "the number went unnoticed";
    } catch (const std::runtime_error &error) {
        const std::string_view text = error.what();
        EXPECT_EQ(text.substr(text.find(": ")),
                  ": /answers/stats/1/pieces/0/pauseMs: is a number too large to be read");
    }
}

static DecodedRequest RequestFor(uint32_t code, bool allObjects)
{
    DecodedRequest request;
    request.command = FindCommand(code);
    request.allObjects = allObjects;
    return request;
}

TEST_F(AnswerFile, EachListHasItsOwnTurn)
{
    AnswerBook book = Read(R"({"answers": {"get-obj-crawler-state": [{"text": "1"}, {"text": "2"}],
                               "get-obj-crawler-state --all": [{"text": "3"}, {"text": "4"}]}})");
    std::string shown;
    for (const bool allObjects : {false, true, false, true, false, true}) {
        shown += ChooseAnswer(&book, RequestFor(26, allObjects)).answer->pieces[0].bytes;
    }
    EXPECT_EQ(shown, "132424");
}

TEST(Answers, UnknownCommandIsRefused)
{
    AnswerBook book = BuiltInAnswers();
    const DecodedRequest request{};
    const Answer &answer = *ChooseAnswer(&book, request).answer;
    EXPECT_EQ(answer.status, 0x2bad0016U);
    EXPECT_EQ(answer.pieces[0].bytes, "unknown command");
}

} // namespace standin
