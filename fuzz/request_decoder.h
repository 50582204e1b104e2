// Reads a request the way the daemon does, from its bytes alone, and compares it with what the user has asked for.
#ifndef PLAX_FUZZ_REQUEST_DECODER_H
#define PLAX_FUZZ_REQUEST_DECODER_H

#include "command_line_model.h"

#include <string>
#include <string_view>

// Stops with a finding unless `request` is one whole frame with the code and the payload that the run asks for.
void ExpectRequest(const std::string &request, const ModelRun &run);

// The same for the payloads of two commands whose words have targets of their own.
void ExpectCallbackPayload(std::string_view payload, const ModelCallback &callback,
                           const std::array<uint8_t, 16> &uuid);
void ExpectRebalancePayload(std::string_view payload, const ModelRebalance &rebalance);

// Takes the header off a whole frame with the given code and returns its payload.
std::string_view ExpectFrame(std::string_view request, uint32_t code);

#endif
