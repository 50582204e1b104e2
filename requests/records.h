// The payload records, in wire order. Numbers are in the host's byte order; only the frame header is in network byte
// order. Records start out zero, so padding and the unused ends of text fields are sent as zero.
#ifndef PLAX_REQUESTS_RECORDS_H
#define PLAX_REQUESTS_RECORDS_H

#include "uuid.h"

#include <cstddef>
#include <cstdint>
#include <type_traits>

struct ProactiveRebalanceRequest {
    uint64_t timeSpan = 86400;      // seconds
    double varianceThreshold = 0.3; // 0 to 1
    uint64_t timeThreshold = 1800;  // seconds
    uint64_t rateThreshold = 14913081;
};
static_assert(offsetof(ProactiveRebalanceRequest, timeSpan) == 0);
static_assert(offsetof(ProactiveRebalanceRequest, varianceThreshold) == 8);
static_assert(offsetof(ProactiveRebalanceRequest, timeThreshold) == 16);
static_assert(offsetof(ProactiveRebalanceRequest, rateThreshold) == 24);
static_assert(sizeof(double) == 8 && sizeof(ProactiveRebalanceRequest) == 32, "no hidden padding");

struct WhatIfEntityDecomRequest {
    Uuid uuid;
    uint32_t decomMode;
    uint8_t ensureDurability;
    uint8_t padding[3]; // always zero
};
static_assert(offsetof(WhatIfEntityDecomRequest, uuid) == 0 && offsetof(WhatIfEntityDecomRequest, decomMode) == 16);
static_assert(offsetof(WhatIfEntityDecomRequest, ensureDurability) == 20);
static_assert(offsetof(WhatIfEntityDecomRequest, padding) == 21 && sizeof(WhatIfEntityDecomRequest) == 24);
static_assert(std::has_unique_object_representations_v<WhatIfEntityDecomRequest>, "no hidden padding");

struct WhatIfUpgradeRequest {
    Uuid uuid;
    uint32_t decomMode;
    uint32_t reason;
    uint8_t wipeDisk;
    uint8_t padding[3]; // always zero
    uint32_t uuidCount;
    char uuidList[kUuidListCapacity]; // only the text and its terminator are sent
};
static_assert(offsetof(WhatIfUpgradeRequest, uuid) == 0 && offsetof(WhatIfUpgradeRequest, decomMode) == 16);
static_assert(offsetof(WhatIfUpgradeRequest, reason) == 20 && offsetof(WhatIfUpgradeRequest, wipeDisk) == 24);
static_assert(offsetof(WhatIfUpgradeRequest, padding) == 25 && offsetof(WhatIfUpgradeRequest, uuidCount) == 28);
static_assert(offsetof(WhatIfUpgradeRequest, uuidList) == 32 && sizeof(WhatIfUpgradeRequest) == 94752);
static_assert(std::has_unique_object_representations_v<WhatIfUpgradeRequest>, "no hidden padding");

struct ForceReconfigureRequest {
    Uuid uuid;
    char filePath[4104]; // only the text and its terminator are sent
};
static_assert(offsetof(ForceReconfigureRequest, uuid) == 0 && offsetof(ForceReconfigureRequest, filePath) == 16);
static_assert(sizeof(ForceReconfigureRequest) == 4120);
static_assert(std::has_unique_object_representations_v<ForceReconfigureRequest>, "no hidden padding");

struct RecoveryModeRequest {
    char text[41]; // UUID and mode, terminated
};
static_assert(sizeof(RecoveryModeRequest) == 41);

struct CrawlerStateRequest {
    char text[38]; // UUID and --all flag, terminated
    // 41 bytes go out: the daemon reads the same length as for RecoveryModeRequest.
    uint8_t padding[3];
};
static_assert(offsetof(CrawlerStateRequest, text) == 0 && offsetof(CrawlerStateRequest, padding) == 38);
static_assert(sizeof(CrawlerStateRequest) == sizeof(RecoveryModeRequest));

struct WorkItemRequest {
    char text[4]; // the work item's number in decimal, terminated
};
static_assert(sizeof(WorkItemRequest) == 4);

struct CallbackBlockRequest {
    char text[1024]; // event code, entry code and UUID, joined by colons
};
static_assert(sizeof(CallbackBlockRequest) == 1024);

struct ComponentManualMoveRequest {
    Uuid uuid;
    uint32_t destinationCount;
    uint32_t exclusionCount;
    char destinationList[kUuidListCapacity];
    char exclusionList[kUuidListCapacity];
};
static_assert(offsetof(ComponentManualMoveRequest, uuid) == 0);
static_assert(offsetof(ComponentManualMoveRequest, destinationCount) == 16);
static_assert(offsetof(ComponentManualMoveRequest, exclusionCount) == 20);
static_assert(offsetof(ComponentManualMoveRequest, destinationList) == 24);
static_assert(offsetof(ComponentManualMoveRequest, exclusionList) == 94744);
static_assert(sizeof(ComponentManualMoveRequest) == 189464);
static_assert(std::has_unique_object_representations_v<ComponentManualMoveRequest>, "no hidden padding");

struct GlobalExclusionListRequest {
    uint32_t exclusionMode;
    uint32_t exclusionCount;
    char exclusionList[kUuidListCapacity];
};
static_assert(offsetof(GlobalExclusionListRequest, exclusionMode) == 0);
static_assert(offsetof(GlobalExclusionListRequest, exclusionCount) == 4);
static_assert(offsetof(GlobalExclusionListRequest, exclusionList) == 8 && sizeof(GlobalExclusionListRequest) == 94728);
static_assert(std::has_unique_object_representations_v<GlobalExclusionListRequest>, "no hidden padding");

#endif
