#include "core/io/http1/ZnHttpKeepAlive_.h"

#include "core/io/http1/ZnHttpGrammar_.h"
#include "core/io/http1/ZnHttpWireText_.h"

#include <algorithm>
#include <utility>

namespace wire = zn::http::wire;

namespace {

bool isNumber(std::string_view text) noexcept {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// What the headers of one response say about its connection and its end.
class Fields_ {
public:
    explicit Fields_(int longestMs) noexcept : idleMs_(longestMs) {}

    /// False: doubt, or a connection that ends.
    bool take(std::string_view line) {
        std::string_view name;
        std::string_view value;
        if (!zn::http::grammar::isFieldLine(line) || !wire::splitHeaderLine(line, &name, &value))
            return false;
        if (wire::equalsLower(name, "content-length"))
            return isNumber(value) && std::exchange(length_, value).empty();
        if (wire::equalsLower(name, "transfer-encoding"))
            return wire::equalsLower(value, "chunked") && !std::exchange(isChunked_, true);
        if (wire::equalsLower(name, "connection"))
            return wire::equalsLower(value, "keep-alive");
        if (wire::equalsLower(name, "keep-alive"))
            takeTimeout_(value);
        return true;
    }

    bool endsBeyondDoubt(int status, bool isHeadRequest) const {
        if (isHeadRequest || status == 304)
            return !isChunked_;
        if (status == 204)
            return !isChunked_ && length_.empty();
        if (status == 205)
            return !isChunked_ && length_ == "0";
        return status >= 200 && isChunked_ == length_.empty();
    }
    int idleMs() const noexcept { return idleMs_; }

private:
    void takeTimeout_(std::string_view value) {
        constexpr std::string_view kTimeout = "timeout=";
        constexpr std::size_t kMaxDigits = 6; // more than any limit of ours
        while (!value.empty()) {
            std::string_view piece = trimmedView(wire::cutPiece(&value, ","));
            if (!wire::equalsLower(piece.substr(0, kTimeout.size()), kTimeout))
                continue;
            piece.remove_prefix(kTimeout.size());
            if (isNumber(piece) && piece.size() <= kMaxDigits)
                idleMs_ = std::min(idleMs_, (ZnString(piece).toInt() - 1) * 1000);
        }
    }

    std::string_view length_; // empty: none
    bool isChunked_ = false;
    int idleMs_;
};

/// 0: not of this version, or no status line to the letter.
int statusOf(std::string_view line) {
    constexpr std::string_view kVersion = "HTTP/1.1 ";
    constexpr std::size_t kEnd = kVersion.size() + 3;
    const bool isWhole = line.starts_with(kVersion) && line.size() > kEnd && line[kEnd] == ' ';
    const std::string_view digits = isWhole ? line.substr(kVersion.size(), 3) : std::string_view();
    return isNumber(digits) && wire::isSafeLineText(line) ? ZnString(digits).toInt() : 0;
}

} // namespace

int zn::http::keepAliveMs(std::string_view head, bool isHeadRequest, int longestMs) {
    const int status = statusOf(wire::cutPiece(&head, wire::kLineEnd));
    Fields_ fields(longestMs);
    for (std::string_view line = wire::cutPiece(&head, wire::kLineEnd); !line.empty();
         line = wire::cutPiece(&head, wire::kLineEnd)) {
        if (!fields.take(line))
            return 0;
    }
    return fields.endsBeyondDoubt(status, isHeadRequest) ? std::max(fields.idleMs(), 0) : 0;
}
