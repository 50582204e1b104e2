// Fuzzes the stand-in's decoder. An input is the bytes of a connection. Any input must decode to one line of text and
// to one JSON value. If the decoder finds no violation, it must find one with a byte less or a byte more.

#include "input.h"

#include "log_formats.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace standin {

static void Require(bool holds, const char *what)
{
    if (!holds) {
        fprintf(stderr, "finding: %s\n", what);
        abort();
    }
}

static bool IsPrintable(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

static void RequireOutput(const DecodedRequest &request)
{
    Require(IsPrintable(FormatRequest(request, LogFormat::Text)), "text is more than one line of ASCII");
    const auto json = nlohmann::json::parse(FormatRequest(request, LogFormat::Json), nullptr, false);
    Require(json.is_object() && json["fields"].size() == request.fields.size(), "JSON does not hold the fields");
}

static void RequireSensitivity(Bytes bytes, const DecodedRequest &whole)
{
    const DecodedRequest less = DecodeRequest(bytes.first(bytes.size() - 1));
    Require(less.fields.empty() && less.violations.size() == 1, "a missing byte goes unnoticed");
    std::vector<uint8_t> longer(bytes.begin(), bytes.end());
    longer.push_back(0);
    const DecodedRequest more = DecodeRequest(longer);
    Require(more.fields.size() == whole.fields.size(), "a further byte changes the request");
    Require(more.violations == std::vector<std::string>{"1 bytes after the end"}, "a further byte goes unnoticed");
}

static void Judge(Bytes bytes)
{
    const DecodedRequest request = DecodeRequest(bytes);
    RequireOutput(request);
    if (request.violations.empty()) {
        Require(request.command != nullptr, "an unknown command is in order");
        Require(bytes.size() == kHeaderSize + request.length, "a request of the wrong length is in order");
        RequireSensitivity(bytes, request);
    }
}

} // namespace standin

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    standin::Judge({data, size});
    return 0;
}
