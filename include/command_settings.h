// Everything that the command line's options set. The driver owns the one record of a run. The initializers are the
// defaults.
#ifndef PLAX_INCLUDE_COMMAND_SETTINGS_H
#define PLAX_INCLUDE_COMMAND_SETTINGS_H

#include "uuid.h"

#include <cstddef>
#include <cstdint>

inline constexpr size_t kFilePathLengthMax = 4096;
inline constexpr const char *kDefaultSocketPath = "/var/run/plaxd.uds";

struct CommandSettings {
    Uuid uuid{};
    bool uuidGiven = false;
    int uuidOrModeCount = 0; // accepted -u and -m together
    int all = 0;             // 0 or 1
    uint32_t decomMode = 0;
    uint8_t ensureDurability = 0; // 0 or 1
    uint8_t wipeDisk = 0;         // 0 or 1
    uint32_t reason = 0;
    uint32_t recoveryMode = 0;
    uint32_t exclusionMode = 0;
    uint32_t workItemType = 0; // 0: none given
    const char *json = nullptr;
    bool jsonGiven = false;
    char filePath[kFilePathLengthMax + 1]{};

    const char *uuidList = ""; // the argument of the last -l
    bool uuidListGiven = false;
    // Two buffers of kUuidListCapacity bytes, owned by the driver and zero at the start.
    char *destinationList = nullptr;
    bool destinationListGiven = false;
    char *exclusionList = nullptr;
    bool exclusionListGiven = false;

    const char *outputPath = nullptr; // null: standard output
    const char *socketPath = kDefaultSocketPath;
    int longOptionIndex = 1; // getopt_long stores the table index of each long option here
};

#endif
