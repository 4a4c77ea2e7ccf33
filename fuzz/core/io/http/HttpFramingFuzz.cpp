#include "core/io/http/ZnHttpParser_.h"
#include "support/HttpReader.h"

#include "core/types/ZnAssert.h"

#include <cstdint>
#include <string>

// The law: what the strict grammar accepts another reader frames in the same way, request by request: the same first
// line, the same body, and the next request where this one ends. And the generous grammar accepts it, too.

namespace {

ZnHttpLimits limitsOf(bool isStrict) {
    ZnHttpLimits limits;
    limits.strictGrammar = isStrict;
    limits.maxBodyBytes = 256;
    return limits;
}

std::string startOf(const ZnHttpRequest& request) {
    return (request.method + " " + request.target + " " + request.httpVersion).str();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t byteCount) {
    std::string_view input(reinterpret_cast<const char*>(data), byteCount);
    ZnList<ZnHttpParser_::RequestRef> requests;
    ZnList<ZnHttpParser_::RequestRef> generous;
    ZnHttpParser_ parser(limitsOf(true));
    const bool isAccepted = parser.feed(input, requests);
    ZnHttpParser_(limitsOf(false)).feed(input, generous);
    ZN_ASSERT(generous.size() >= requests.size());
    for (std::size_t i = 0; i < requests.size(); ++i) {
        const http_reader::Message message = http_reader::readRequest(input);
        ZN_ASSERT(message.isComplete);
        ZN_ASSERT(message.start == startOf(*requests[i]) && startOf(*generous[i]) == message.start);
        ZN_ASSERT(message.body == requests[i]->body.view() && generous[i]->body.view() == message.body);
        input.remove_prefix(message.byteCount);
    }
    // What is left is no request yet for either of the two.
    ZN_ASSERT(!isAccepted || !http_reader::readRequest(input).isComplete);
    return 0;
}
