#include "core/io/http/ZnHttpParser_.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

// The law: where the input is cut does not change the requests nor the failure that come out of it.
// The first byte of the input chooses the cuts, the rest is what a peer sends.

namespace {

ZnHttpLimits smallLimits() {
    ZnHttpLimits limits;
    limits.maxRequestLineBytes = 64;
    limits.maxHeaderBytes = 256;
    limits.maxHeaderCount = 8;
    limits.maxBodyBytes = 64;
    limits.maxChunkBytes = 32;
    limits.maxPipelinedRequests = 4;
    return limits;
}

void describe(const ZnHttpRequest& request, std::string* out) {
    for (const ZnString* text :
         {&request.method, &request.target, &request.path, &request.queryString, &request.httpVersion})
        *out += text->str() + '\n';
    for (const auto* map : {&request.headers, &request.queryParams}) {
        for (const auto& [name, value] : *map)
            *out += name.str() + '=' + value.str() + '\n';
    }
    *out += request.body.view();
    *out += request.keepAlive ? 'k' : 'c';
    *out += request.chunked ? 'c' : 'f';
}

/// Feeds pieces whose sizes follow from `seed`; 0: everything at once.
std::string outcomeOf(std::string_view input, std::uint32_t seed) {
    ZnHttpParser_ parser(smallLimits());
    ZnList<ZnHttpParser_::RequestRef> requests;
    while (!input.empty()) {
        std::size_t pieceBytes = input.size();
        if (seed != 0) {
            seed = seed * 1664525 + 1013904223;
            pieceBytes = std::min<std::size_t>(input.size(), 1 + (seed >> 24) % 7);
        }
        parser.feed(input.substr(0, pieceBytes), requests);
        input.remove_prefix(pieceBytes);
    }
    std::string text = parser.errorText().str() + std::to_string(parser.errorStatus());
    for (const auto& request : requests)
        describe(*request, &text);
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (outcomeOf(input, 0) != outcomeOf(input, data[0] + 1U))
        std::abort();
    return 0;
}
