// The decoder: requests cut at every byte, and every command's row against a list that is typed out here.

#include "decoder.h"

#include "protocol_table.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
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
    EXPECT_EQ(decoded.violations, Violations{"length 37 where 36 is due"});
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

// No work item has the number 4, so it means nothing.
TEST(Decoder, WorkItemsByNumber)
{
    const std::array<std::string, 24> names = {"",
                                               "PLACEMENT",
                                               "DECOM_CLEANUP",
                                               "CLEANUP",
                                               "",
                                               "VOTES_REBALANCE",
                                               "FIX_FD_IDS",
                                               "MOVE",
                                               "REACTIVE_REBALANCE",
                                               "DECOM",
                                               "FORCE_REPAIR",
                                               "FORCE_RECONFIGURE",
                                               "RECOVERY",
                                               "REPAIR",
                                               "CHANGE",
                                               "CHANGE_PENDING",
                                               "COMPLIANCE",
                                               "CONCAT",
                                               "PROACTIVE_REBALANCE",
                                               "DELTA_DECOM",
                                               "FORMAT_CHANGE",
                                               "UNPLANNED_DELTA",
                                               "MANUAL_MOVE",
                                               ""};
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

TEST(ProtocolTable, EveryRow)
{
    struct Row {
        std::string_view word;
        ReplyClass replyClass;
        size_t lengthMin;
        size_t lengthMax;
    };
    using enum ReplyClass;
    const std::array<Row, 34> expected = {{
        {"stats", Streamed, 0, 0},
        {"crawler", Checked, 36, 36},
        {"fitness-config-get", Printed, 0, 0},
        {"fitness-config-set", Checked, 1, 1048576},
        {"fitness-config-reset", Checked, 0, 0},
        {"fitness-stats-get", Printed, 0, 0},
        {"log-level", Checked, 0, 1048576},
        {"fix-object-immediate", Checked, 36, 36},
        {"get-object-last-operation", Printed, 36, 36},
        {"start-proactive-rebalance", Checked, 32, 32},
        {"stop-proactive-rebalance", Checked, 0, 0},
        {"info-proactive-rebalance", Printed, 0, 0},
        {"fix-concats", Checked, 0, 0},
        {"info-rebalance", Printed, 36, 36},
        {"resources-to-fix-unhealthy-objects", Printed, 36, 36},
        {"what-if-entity-decom", Printed, 24, 24},
        {"what-if-upgrade", Printed, 33, 94752},
        {"what-if-cancel", Checked, 0, 0},
        {"force-reconfigure-the-object", Checked, 17, 4113},
        {"update-plaxdb", Checked, 1, 4097},
        {"replace-plaxdb", Checked, 1, 4097},
        {"enable-plax-recovery-mode", Checked, 41, 41},
        {"get-obj-decom-state", Printed, 36, 36},
        {"enable-workitem", Checked, 4, 4},
        {"disable-workitem", Checked, 4, 4},
        {"get-obj-crawler-state", Printed, 41, 41},
        {"pause-decom-state-progress", Checked, 0, 0},
        {"resume-decom-state-progress", Checked, 0, 0},
        {"start-decom-state-heartbeat", Checked, 0, 0},
        {"pause-failed-delta-entry-processing", None, 0, 0},
        {"block-cdb-cb", None, 1024, 1024},
        {"refresh-config-opts", None, 0, 0},
        {"component-manual-move", Checked, 189464, 189464},
        {"set-global-exclusion-list", Checked, 94728, 94728},
    }};
    ASSERT_EQ(AllCommands().size(), expected.size());
    for (uint32_t code = 1; code <= expected.size(); ++code) {
        const CommandRow &row = *FindCommand(code);
        const Row &due = expected[code - 1];
        EXPECT_EQ(row.word, due.word);
        EXPECT_EQ(row.replyClass, due.replyClass) << due.word;
        EXPECT_EQ(row.payload.lengthMin, due.lengthMin) << due.word;
        EXPECT_EQ(row.payload.lengthMax, due.lengthMax) << due.word;
    }
    EXPECT_EQ(FindCommand(0), nullptr);
    EXPECT_EQ(FindCommand(35), nullptr);
}

} // namespace standin
