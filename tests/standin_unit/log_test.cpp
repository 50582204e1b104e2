// Wordings of the log that a running stand-in rarely writes.

#include "log_formats.h"

#include <gtest/gtest.h>

namespace standin {

TEST(SentBytes, HeadComesTogetherFromPieces)
{
    SentBytes sent;
    for (const std::string_view piece : {"\1\2\3", "", "\4\5\6\7", "\10\11\12"}) {
        sent.Add(piece);
    }
    EXPECT_EQ(sent.count, 10U);
    EXPECT_EQ(sent.head, (std::array<uint8_t, 8>{1, 2, 3, 4, 5, 6, 7, 8}));
}

static std::string LevelText(const std::string &level)
{
    DecodedRequest request;
    request.code = 7;
    request.command = FindCommand(7);
    request.fields.push_back({"level", level, {}});
    return FormatRequest(request, LogFormat::Text);
}

TEST(FormatRequest, TextsAreQuotedWhenTheyCouldBeMistaken)
{
    EXPECT_EQ(LevelText("a-b_c.d/e:f+g"), "log-level 7 level=a-b_c.d/e:f+g");
    EXPECT_EQ(LevelText(""), "log-level 7 level=\"\"");
    EXPECT_EQ(LevelText("a=b"), "log-level 7 level=\"a=b\"");
    EXPECT_EQ(LevelText("a,b"), "log-level 7 level=\"a,b\"");
    EXPECT_EQ(LevelText("a b"), "log-level 7 level=\"a b\"");
    EXPECT_EQ(LevelText("a|b"), "log-level 7 level=\"a|b\"");
    EXPECT_EQ(LevelText("a\nb"), "log-level 7 level=\"a\\nb\"");
    EXPECT_EQ(LevelText(std::string(1, '\0')), "log-level 7 level=\"\\u0000\"");
    EXPECT_EQ(LevelText("\xc3\xa4"), "log-level 7 level=\"\\u00e4\"");
    EXPECT_EQ(LevelText("\xff"), "log-level 7 level=\"\\ufffd\"");
}

} // namespace standin
