#include "core/io/http1/ZnHttpResponseReader_.h"

#include "core/types/ZnAssert.h"
#include "core/types/ZnLogger.h"

#include <cstdint>
#include <string>

// The law: a response that comes byte by byte is the one that comes at once, and it ends or fails at the same byte.
// The first byte of the input chooses the rules, the rest is what a server sends.

namespace {

using Reader = ZnHttpResponseReader_;

Reader::Rules rulesOf(std::uint8_t choice) {
    return {.isHeadRequest = (choice & 1) != 0,
            .statusFraming = (choice & 2) != 0,
            .maxHeadBytes = (choice & 4) != 0 ? 64U : 4096U,
            .maxBodyBytes = (choice & 8) != 0 ? 16 : 0};
}

std::string describe(const Reader& reader, Reader::Outcome outcome) {
    std::string text = std::to_string(static_cast<int>(outcome));
    if (outcome != Reader::Outcome::NeedMore && outcome != Reader::Outcome::Complete)
        return text; // how much of a body came before its failure is up to the cuts
    const ZnHttpClientResponse_& response = reader.response();
    text += reader.endsWithConnection() ? 'c' : '-';
    text += std::to_string(response.statusCode) + response.reasonPhrase.str() + response.rawHeaders.str();
    for (const auto& [name, value] : response.headers)
        text += name.str() + '=' + value.str() + '\n';
    return text.append(response.body.view());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t byteCount);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t byteCount) {
    if (byteCount == 0)
        return 0;
    ZnLogger::instance().setConsoleEnabled(false);
    const std::string_view input(reinterpret_cast<const char*>(data) + 1, byteCount - 1);
    Reader whole;
    whole.begin(rulesOf(data[0]));
    const Reader::Outcome expected = whole.feed(input);
    Reader cut;
    cut.begin(rulesOf(data[0]));
    Reader::Outcome outcome = cut.feed({});
    for (std::size_t at = 0; at < input.size() && outcome == Reader::Outcome::NeedMore; ++at)
        outcome = cut.feed(input.substr(at, 1));
    ZN_ASSERT(describe(cut, outcome) == describe(whole, expected));
    return 0;
}
