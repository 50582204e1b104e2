// Decodes a request's header and checks its length. The payload shape in the command's row decodes the rest.

#include "decoder.h"

#include "payload_shapes.h"
#include "protocol_table.h"

#include <algorithm>

namespace standin {

std::string DumpJson(const nlohmann::ordered_json &value)
{
    return value.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace);
}

static uint32_t ReadBigEndian(Bytes bytes)
{
    uint32_t number = 0;
    for (const uint8_t byte : bytes.first(sizeof number)) {
        number = number << 8U | byte;
    }
    return number;
}

FrameHeader ReadHeader(Bytes bytes)
{
    return {ReadBigEndian(bytes), ReadBigEndian(bytes.subspan(4))};
}

std::string BytesAfterEnd(uint64_t count)
{
    return std::to_string(count) + " bytes after the end";
}

static std::string CutShort(size_t arrived, size_t due, const char *part)
{
    return "cut short: " + std::to_string(arrived) + " of " + std::to_string(due) + " " + part + " bytes";
}

static std::string LengthDue(const PayloadShape &shape)
{
    const std::string least = std::to_string(shape.lengthMin);
    return shape.lengthMin == shape.lengthMax ? least : least + " to " + std::to_string(shape.lengthMax);
}

static void DecodePayload(Bytes payload, DecodedRequest *request)
{
    const PayloadShape &shape = request->command->payload;
    if (payload.size() < shape.lengthMin || payload.size() > shape.lengthMax) {
        request->violations.push_back("length " + std::to_string(payload.size()) + " instead of " + LengthDue(shape));
        return;
    }
    shape.decode(payload, request);
}

// `rest` follows a header whose length is within the limit.
static void DecodeFramed(Bytes rest, DecodedRequest *request)
{
    if (rest.size() < request->length) {
        request->violations.push_back(CutShort(rest.size(), request->length, "payload"));
        return;
    }
    if (request->command != nullptr) {
        DecodePayload(rest.first(request->length), request);
    }
    if (rest.size() > request->length) {
        request->violations.push_back(BytesAfterEnd(rest.size() - request->length));
    }
}

DecodedRequest DecodeRequest(Bytes bytes)
{
    DecodedRequest request;
    if (bytes.size() < kHeaderSize) {
        request.violations.push_back(CutShort(bytes.size(), kHeaderSize, "header"));
        return request;
    }
    const FrameHeader header = ReadHeader(bytes);
    request.code = header.codeOrStatus;
    request.length = header.length;
    request.command = FindCommand(request.code);
    if (request.command == nullptr) {
        request.violations.push_back("unknown code " + std::to_string(request.code));
    }
    if (request.length > kRequestLengthMax) {
        request.violations.push_back("length " + std::to_string(request.length) + " is above the limit of " +
                                     std::to_string(kRequestLengthMax));
        return request;
    }
    DecodeFramed(bytes.subspan(kHeaderSize), &request);
    return request;
}

} // namespace standin
