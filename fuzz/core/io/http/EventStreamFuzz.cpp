#include "core/io/http/ZnEventStreamParser.h"
#include "core/types/ZnAssert.h"

#include <algorithm>
#include <cstdint>
#include <string>

// The law: where a stream is cut changes neither its events nor whether one was too large, nor where a handler ends it.
// The first byte of the input chooses the size of the pieces, the rest is the stream.

namespace {

constexpr std::size_t kMaxEventBytes = 64;

std::string decode(std::string_view stream, std::size_t pieceBytes) {
    std::string events;
    bool isStopped = false;
    const auto note = [&](std::string_view type, std::string_view data) {
        ZN_ASSERT(!isStopped && data.size() <= kMaxEventBytes);
        ZN_ASSERT(type.find_first_of("\r\n") == std::string_view::npos && data.find('\r') == std::string_view::npos);
        events.append(type).append("\r").append(data).append("\r\r");
        isStopped = data == "stop";
        return !isStopped;
    };
    ZnEventStreamParser parser(kMaxEventBytes);
    for (; !stream.empty() && !isStopped; stream.remove_prefix(std::min(pieceBytes, stream.size())))
        if (!parser.feed(stream.substr(0, pieceBytes), note))
            return events + "too large";
    return events;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t byteCount) {
    if (byteCount == 0)
        return 0;
    const std::string_view stream(reinterpret_cast<const char*>(data) + 1, byteCount - 1);
    const std::string whole = decode(stream, std::string_view::npos);
    ZN_ASSERT(decode(stream, 1) == whole);
    ZN_ASSERT(decode(stream, 1 + *data % 16) == whole);
    return 0;
}
