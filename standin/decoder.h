// Decoding a request into named fields, violations of the protocol, and warnings. The daemon, the relay, the `decode`
// command and the fuzz targets pass in the bytes; nothing is read or written here.
#ifndef PLAX_STANDIN_DECODER_H
#define PLAX_STANDIN_DECODER_H

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace standin {

struct CommandRow;

using Bytes = std::span<const uint8_t>;

inline constexpr size_t kHeaderSize = 8;
// Far above the longest request. A request that announces more is not read to its end.
inline constexpr uint32_t kRequestLengthMax = 1024 * 1024;

struct Field {
    std::string_view name;
    nlohmann::ordered_json value; // a number, a text or a list of texts
    std::string_view meaning;     // of a number; may be empty
};

struct DecodedRequest {
    uint32_t code = 0;
    uint32_t length = 0;                 // of the payload, as the header announces it
    const CommandRow *command = nullptr; // null when there is no whole header, or when its code is unknown
    bool allObjects = false;             // the crawler states of all objects are asked for, so the answer is a stream
    std::vector<Field> fields;           // none when the payload is cut short or has a wrong length
    std::vector<std::string> violations;
    size_t typedViolations = 0;        // those that the user typed and the tool passed on without a look
    std::vector<std::string> warnings; // of what the protocol allows, but nobody can have meant
};

// A value as one line of JSON. Bytes that are not UTF-8 are replaced.
std::string DumpJson(const nlohmann::ordered_json &value);

// Both halves of a frame header.
struct FrameHeader {
    uint32_t codeOrStatus;
    uint32_t length;
};

// `bytes` holds at least a whole header.
FrameHeader ReadHeader(Bytes bytes);

// Decodes what arrived on one connection. Bytes after the request's end are only counted.
DecodedRequest DecodeRequest(Bytes bytes);

// The violation of a client that sends more than its request.
std::string BytesAfterEnd(uint64_t count);

} // namespace standin

#endif
