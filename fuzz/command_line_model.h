// What a run must make of its command line, up to the moment at which it would connect. The tables are written out here
// a second time, so that a slip in one of the tool's is a finding.
#ifndef PLAX_FUZZ_COMMAND_LINE_MODEL_H
#define PLAX_FUZZ_COMMAND_LINE_MODEL_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct ModelSettings {
    std::array<uint8_t, 16> uuid{};
    bool uuidGiven = false;
    size_t uuidOrModeCount = 0;
    bool all = false;
    uint32_t decomMode = 0;
    bool ensureDurability = false;
    bool wipeDisk = false;
    uint32_t reason = 0;
    uint32_t recoveryMode = 0;
    uint32_t exclusionMode = 0;
    uint32_t workItemType = 0;
    std::optional<std::string> json;
    std::string filePath;
    std::optional<std::string> uuidList;
    std::optional<std::string> destinationList;
    std::optional<std::string> exclusionList;
    std::optional<std::string> outputPath;
    std::string socketPath = "/var/run/plaxd.uds";
    int longOptionIndex = 1;
    size_t jsonCount = 0; // accepted -j, whose copies are never released
};

// The class is one of those in reply_model.h; the rule and the payload are letters of the two tables in the code.
struct ModelCommand {
    std::string_view word;
    char commandClass;
    char rule;
    char payload;
    time_t receiveTimeoutSec = 20;
};

enum class ModelEnd : uint8_t { UsageError, Help, Abort, Connection };

struct ModelRun {
    ModelEnd end = ModelEnd::UsageError;
    std::string warnings;
    ModelSettings settings;
    uint32_t code = 0; // the command's, when the run gets as far
    ModelCommand command{};
    std::vector<std::string> words; // the vector with its options in front
    size_t argumentIndex = 0;
};

// The vector holds at least the program's name.
ModelRun PredictCommandLine(const std::vector<std::string> &words);

// The number that a decimal text begins with, as the C library reads it: a minus sign wraps, and a number that is out
// of range reads as the largest. Text without a number reads as nothing.
struct ModelNumber {
    bool found = false;
    bool outOfRange = false;
    unsigned long value = 0;
};
ModelNumber ReadModelNumber(std::string_view text);

// The codes of a callback's event and entry word among `words` from position `first` on.
struct ModelCallback {
    uint32_t event = 0;
    uint32_t entry = 0;
};
ModelCallback FindModelCallback(const std::vector<std::string> &words, size_t first);

struct ModelRebalance {
    uint64_t timeSpan = 86400;
    double varianceThreshold = 0.3;
    uint64_t timeThreshold = 1800;
    uint64_t rateThreshold = 14913081;
};
ModelRebalance ReadModelRebalance(const std::vector<std::string> &words, size_t first);

#endif
