// The shapes that payloads have. Several commands share a shape, and each command's row names the one it has.
#ifndef PLAX_STANDIN_PAYLOAD_SHAPES_H
#define PLAX_STANDIN_PAYLOAD_SHAPES_H

#include "decoder.h"

namespace standin {

struct PayloadShape {
    size_t lengthMin;
    size_t lengthMax;
    // Adds fields, violations and warnings to the request. The payload's length is within the two limits.
    void (*decode)(Bytes payload, DecodedRequest *request);
};

// The fields that all payloads of the shape have. Their values mean nothing.
std::vector<Field> FieldsOf(const PayloadShape &shape);

// The names of the numbers of workItemType, event or entry, in the order of the numbers; empty for numbers without a
// meaning.
std::span<const std::string_view> NamesOf(std::string_view field);

extern const PayloadShape kNoPayload;
extern const PayloadShape kUuidTextPayload;
extern const PayloadShape kOptionalUuidTextPayload; // the zero UUID means all objects
extern const PayloadShape kJsonPayload;
extern const PayloadShape kLogLevelPayload;
extern const PayloadShape kProactiveRebalancePayload;
extern const PayloadShape kWhatIfEntityDecomPayload;
extern const PayloadShape kWhatIfUpgradePayload;
extern const PayloadShape kForceReconfigurePayload;
extern const PayloadShape kFilePathPayload;
extern const PayloadShape kRecoveryModePayload;
extern const PayloadShape kWorkItemPayload;
extern const PayloadShape kCrawlerStatePayload;
extern const PayloadShape kCallbackBlockPayload;
extern const PayloadShape kManualMovePayload;
extern const PayloadShape kGlobalExclusionPayload;

} // namespace standin

#endif
