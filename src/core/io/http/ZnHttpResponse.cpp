#include "core/io/http/ZnHttpResponse.h"

#include "core/io/http1/ZnHttpHeadWriter_.h"

#include <algorithm>
#include <numeric>
#include <string>
#include <utility>

// HTTP/1.1 <status> <reason> CRLF
// *( name ": " value CRLF )               names in lower case, in their order
// [ "content-length: " bytes CRLF / "transfer-encoding: chunked" CRLF ]
// [ "connection: " ( "keep-alive" / "close" ) CRLF ]
// CRLF

namespace {

constexpr std::size_t kUsualHeadBytes = 384;

/// Whether `name` is to be sent as it is; whether it may be sent at all is the writer's question.
bool isLowerAndTrimmed(std::string_view name) noexcept {
    const auto isUpperCase = [](char c) { return c >= 'A' && c <= 'Z'; };
    return !name.empty() && name.front() > ' ' && name.back() > ' ' &&
           std::none_of(name.begin(), name.end(), isUpperCase);
}

class NumberText {
public:
    explicit NumberText(unsigned long long value) noexcept {
        do {
            *--at_ = static_cast<char>('0' + value % 10);
            value /= 10;
        } while (value != 0);
    }
    NumberText(const NumberText&) = delete;
    NumberText& operator=(const NumberText&) = delete;
    std::string_view view() const noexcept { return {at_, static_cast<std::size_t>(digits_ + sizeof(digits_) - at_)}; }

private:
    char digits_[20];
    char* at_ = digits_ + sizeof(digits_);
};

bool isNumber(std::string_view text) noexcept {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

void writeStatusLine(ZnHttpHeadWriter_* out, const ZnHttpResponse& response) {
    const bool isOwn = !response.reason.isEmpty() && zn::http::isSafeLineText(response.reason.view());
    const std::string_view reason = isOwn ? response.reason.view() : zn::http::reasonPhrase(response.status);
    if (response.status < 0)
        out->startLine("HTTP/1.1", std::to_string(response.status), reason);
    else
        out->startLine("HTTP/1.1", NumberText(static_cast<unsigned long long>(response.status)).view(), reason);
}

} // namespace

ZnHttpResponse ZnHttpResponse::text(int status, std::string_view body, std::string_view contentType) {
    ZnHttpResponse response;
    response.status = status;
    response.reason = zn::http::reasonPhrase(status);
    response.headers.insert("content-type", ZnString(contentType));
    response.body = ZnByteArray(body);
    return response;
}

ZnHttpResponse ZnHttpResponse::plain(int status, std::string_view body, bool keepAlive) {
    ZnHttpResponse response = text(status, body);
    response.closeConnection = !keepAlive;
    return response;
}

std::uint64_t ZnHttpResponse::bodyBytes() const noexcept {
    if (useFile)
        return fileLength;
    if (!chunked || chunks.isEmpty())
        return body.size();
    return std::accumulate(chunks.begin(), chunks.end(), std::uint64_t(0),
                           [](std::uint64_t sum, const ZnByteArray& chunk) { return sum + chunk.size(); });
}

void ZnHttpResponse::settleBody(bool isHead) {
    const bool isBodiless = (status >= 100 && status < 200) || status == 204;
    const bool wasHeadOnly = std::exchange(headOnly, !isBodiless && (isHead || status == 304));
    if (headOnly || (!isBodiless && !wasHeadOnly))
        return;
    body = ZnByteArray();
    chunks.clear();
    useFile = chunked = false;
}

void ZnHttpResponse::joinChunks() {
    if (!std::exchange(chunked, false) || useFile || chunks.isEmpty())
        return;
    body = ZnByteArray();
    for (const ZnByteArray& chunk : chunks)
        body.append(chunk);
    chunks.clear();
}

ZnString ZnHttpResponse::head(bool closeAfterResponse, std::size_t spareBytes) const {
    ZnHttpHeadWriter_ out(kUsualHeadBytes + spareBytes);
    writeStatusLine(&out, *this);
    const bool isFramed = chunked && !useFile;
    const std::uint64_t byteCount = isFramed ? 0 : bodyBytes();
    const NumberText lengthText(byteCount);
    // A handler that makes no body when none is sent may still say how long it would be.
    const bool trustsLength = headOnly && byteCount == 0;
    bool hasLength = isFramed;
    bool hasEncoding = !isFramed;
    bool hasConnection = false;
    for (const auto& [name, value] : headers) {
        ZnString cleaned; // stays empty for the usual name, which needs no change
        if (!isLowerAndTrimmed(name.view()))
            cleaned = name.trimmed().toLower();
        const std::string_view sent = cleaned.isEmpty() ? name.view() : cleaned.view();
        if (sent == "content-length") {
            if (hasLength || (value.view() != lengthText.view() && !(trustsLength && isNumber(value.view()))))
                continue;
            hasLength = true;
        } else if (sent == "transfer-encoding") {
            if (hasEncoding || value.toLower() != "chunked")
                continue;
            hasEncoding = true;
        }
        hasConnection |= out.header(sent, value.view()) && sent == "connection";
    }
    if (!hasLength)
        out.ownHeader("content-length", lengthText.view());
    if (!hasEncoding)
        out.ownHeader("transfer-encoding", "chunked");
    if (!hasConnection)
        out.ownHeader("connection", closeAfterResponse ? "close" : "keep-alive");
    return out.finish();
}
