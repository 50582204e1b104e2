// The decoder: requests cut at every byte, and every command's row against tests/commands.json.

#include "decoder.h"

#include "protocol_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>

namespace standin {

static std::vector<uint8_t> Frame(uint32_t code, const std::string &payload)
{
    const auto length = static_cast<uint32_t>(payload.size());
    std::vector<uint8_t> bytes;
    for (const uint32_t number : {code, length}) {
        for (const unsigned shift : {24U, 16U, 8U, 0U}) {
            bytes.push_back(static_cast<uint8_t>(number >> shift));
        }
    }
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

static const std::string kUuid = "01234567-89ab-cdef-0123-456789abcdef";
using Violations = std::vector<std::string>;

TEST(Decoder, CutAtEveryByte)
{
    const std::vector<uint8_t> request = Frame(2, kUuid);
    for (size_t cut = 0; cut < request.size(); ++cut) {
        const DecodedRequest decoded = DecodeRequest(Bytes(request).first(cut));
        const std::string expected = cut < 8 ? "cut short: " + std::to_string(cut) + " of 8 header bytes"
                                             : "cut short: " + std::to_string(cut - 8) + " of 36 payload bytes";
        EXPECT_EQ(decoded.violations, Violations{expected});
        EXPECT_TRUE(decoded.fields.empty());
    }
    EXPECT_TRUE(DecodeRequest(request).violations.empty());
}

TEST(Decoder, HeaderIsInNetworkOrder)
{
    const std::array<uint8_t, 8> header = {0x01, 0x02, 0x03, 0x04, 0x00, 0x00, 0x00, 0x00};
    const DecodedRequest decoded = DecodeRequest(header);
    EXPECT_EQ(decoded.code, 0x01020304U);
    EXPECT_EQ(decoded.length, 0U);
    EXPECT_EQ(decoded.violations, Violations{"unknown code 16909060"});
}

TEST(Decoder, LengthAboveTheLimitIsNotWaitedFor)
{
    const std::array<uint8_t, 8> header = {0, 0, 0, 99, 0x00, 0x10, 0x00, 0x01};
    EXPECT_EQ(DecodeRequest(header).violations,
              (Violations{"unknown code 99", "length 1048577 is above the limit of 1048576"}));
}

TEST(Decoder, FieldsAreLeftOutWhenTheLengthIsWrong)
{
    const DecodedRequest decoded = DecodeRequest(Frame(2, kUuid + "x"));
    EXPECT_EQ(decoded.violations, Violations{"length 37 instead of 36"});
    EXPECT_TRUE(decoded.fields.empty());
}

// Thirty-two bytes of a rebalance request with the variance given.
static std::vector<uint8_t> Rebalance(double variance)
{
    std::string payload(32, '\0');
    memcpy(payload.data() + 8, &variance, sizeof variance);
    return Frame(10, payload);
}

TEST(Decoder, NumbersThatJsonDoesNotKnow)
{
    const double infinity = std::numeric_limits<double>::infinity();
    EXPECT_EQ(DecodeRequest(Rebalance(infinity)).fields[1].value, "inf");
    EXPECT_EQ(DecodeRequest(Rebalance(-infinity)).fields[1].value, "-inf");
    EXPECT_EQ(DecodeRequest(Rebalance(std::nan(""))).fields[1].value, "nan");
    EXPECT_EQ(DecodeRequest(Rebalance(0.25)).fields[1].value, 0.25);
}

static std::string Meaning(uint32_t code, const std::string &payload, size_t field)
{
    return std::string(DecodeRequest(Frame(code, payload)).fields.at(field).meaning);
}

static nlohmann::ordered_json Expectation()
{
    return nlohmann::ordered_json::parse(std::ifstream(PLAX_EXPECTATION));
}

TEST(Decoder, WorkItemsByNumber)
{
    std::array<std::string, 24> names;
    const nlohmann::ordered_json expectation = Expectation();
    for (const auto &item : expectation.at("workItems").items()) {
        names.at(item.value()) = item.key();
    }
    for (size_t number = 0; number < names.size(); ++number) {
        std::string payload = std::to_string(number);
        payload.resize(4);
        EXPECT_EQ(Meaning(24, payload, 0), names[number]) << number;
    }
}

TEST(Decoder, RecoveryModesByNumber)
{
    const std::array<std::string, 9> names = {"",      "REPAIR", "REBALANCE", "COMPLIANCE", "POLICY", "CONCAT",
                                              "DELTA", "ALL",    ""};
    for (size_t mode = 0; mode < names.size(); ++mode) {
        std::string payload = kUuid + std::to_string(mode);
        payload.resize(41);
        EXPECT_EQ(Meaning(22, payload, 1), names[mode]) << mode;
    }
}

TEST(Decoder, AllObjectsMakeAStream)
{
    for (const char all : {'0', '1', '2'}) {
        std::string payload = kUuid + all;
        payload.resize(41);
        const ReplyClass expected = all == '1' ? ReplyClass::Streamed : ReplyClass::Printed;
        EXPECT_EQ(ReplyClassOf(DecodeRequest(Frame(26, payload))), expected) << all;
    }
}

static std::string ReplyClassName(const CommandRow &row)
{
    switch (row.replyClass) {
    case ReplyClass::Printed:
        return "printed";
    case ReplyClass::Checked:
        return "checked";
    case ReplyClass::None:
        return "none";
    case ReplyClass::Streamed:
        return "streamed";
    }
    return "";
}

using Json = nlohmann::ordered_json;

static Json AsExpectation(const CommandRow &row)
{
    return {{"code", row.code},
            {"word", row.word},
            {"reply", ReplyClassName(row)},
            {"length", {row.payload.lengthMin, row.payload.lengthMax}},
            {"answer", row.answer},
            {"allObjects", row.streamsForAllObjects ? kAllObjectsAnswer : ""}};
}

static Json ExpectedRow(const Json &command, const Json &shapes)
{
    const Json none = {{"answer", ""}};
    return {{"code", command.at("code")},     {"word", command.at("word")},
            {"reply", command.at("reply")},   {"length", shapes.at(std::string(command.at("shape"))).at("length")},
            {"answer", command.at("answer")}, {"allObjects", command.value("allObjects", none).at("answer")}};
}

TEST(ProtocolTable, EveryRow)
{
    const Json expectation = Expectation();
    std::vector<std::string> expected;
    for (const Json &command : expectation.at("commands")) {
        expected.push_back(ExpectedRow(command, expectation.at("shapes")).dump());
    }
    std::vector<std::string> rows;
    for (const CommandRow &row : AllCommands()) {
        rows.push_back(AsExpectation(row).dump());
    }
    for (const std::string &row : expected) {
        EXPECT_TRUE(std::find(rows.begin(), rows.end(), row) != rows.end())
            << "standin/protocol_table.cpp lacks " << row;
    }
    for (const std::string &row : rows) {
        EXPECT_TRUE(std::find(expected.begin(), expected.end(), row) != expected.end())
            << "tests/commands.json lacks " << row;
    }
}

TEST(ProtocolTable, CodesBesideTheRows)
{
    EXPECT_EQ(FindCommand(0), nullptr);
    EXPECT_EQ(FindCommand(static_cast<uint32_t>(AllCommands().size() + 1)), nullptr);
}

} // namespace standin
