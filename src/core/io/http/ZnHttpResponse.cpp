#include "core/io/http/ZnHttpResponse.h"

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

bool isLowerToken(std::string_view name) noexcept {
    const auto isUpperCase = [](char c) { return c >= 'A' && c <= 'Z'; };
    return zn::http::isToken(name) && std::none_of(name.begin(), name.end(), isUpperCase);
}

void appendNumber(std::string* out, unsigned long long value) {
    char digits[20];
    char* at = digits + sizeof(digits);
    do {
        *--at = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    out->append(at, digits + sizeof(digits));
}

void appendStatusLine(std::string* out, const ZnHttpResponse& response) {
    *out += "HTTP/1.1 ";
    if (response.status < 0)
        *out += '-';
    appendNumber(out, static_cast<unsigned long long>(std::abs(static_cast<long long>(response.status))));
    *out += ' ';
    if (response.reason.isEmpty() || !zn::http::isSafeLineText(response.reason.view()))
        *out += zn::http::reasonPhrase(response.status);
    else
        *out += response.reason.view();
    *out += "\r\n";
}

void appendHeader(std::string* out, std::string_view name, std::string_view value) {
    *out += name;
    *out += ": ";
    *out += value;
    *out += "\r\n";
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

ZnString ZnHttpResponse::head(bool closeAfterResponse, std::size_t spareBytes) const {
    std::string out;
    out.reserve(kUsualHeadBytes + spareBytes);
    appendStatusLine(&out, *this);
    const bool isFramed = chunked && !useFile;
    bool hasLength = isFramed;
    bool hasEncoding = !isFramed;
    bool hasConnection = false;
    for (const auto& [name, value] : headers) {
        if (!zn::http::isSafeLineText(value.view()))
            continue;
        ZnString cleaned; // stays empty for the usual name, which needs no change
        if (!isLowerToken(name.view())) {
            cleaned = name.trimmed().toLower();
            if (!zn::http::isToken(cleaned.view()))
                continue;
        }
        const std::string_view sent = cleaned.isEmpty() ? name.view() : cleaned.view();
        const bool isLength = sent == "content-length";
        if (isLength && isFramed)
            continue; // a peer that believed it would take what follows for the next response
        hasLength |= isLength;
        hasEncoding |= sent == "transfer-encoding";
        hasConnection |= sent == "connection";
        appendHeader(&out, sent, value.view());
    }
    if (!hasLength) {
        out += "content-length: ";
        appendNumber(&out, bodyBytes());
        out += "\r\n";
    }
    if (!hasEncoding)
        out += "transfer-encoding: chunked\r\n";
    if (!hasConnection)
        out += closeAfterResponse ? "connection: close\r\n" : "connection: keep-alive\r\n";
    out += "\r\n";
    return ZnString(std::move(out));
}
