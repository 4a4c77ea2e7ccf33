#include "core/io/http/ZnHttpResponse.h"

#include <algorithm>
#include <string>
#include <utility>

// HTTP/1.1 <status> <reason> CRLF
// *( name ": " value CRLF )               names in lower case, in their order
// [ "content-length: " bytes CRLF ]
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

ZnString ZnHttpResponse::head(bool closeAfterResponse, std::size_t spareBytes) const {
    std::string out;
    out.reserve(kUsualHeadBytes + spareBytes);
    appendStatusLine(&out, *this);
    bool hasLength = false;
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
        hasLength |= sent == "content-length";
        hasConnection |= sent == "connection";
        appendHeader(&out, sent, value.view());
    }
    if (!hasLength) {
        out += "content-length: ";
        appendNumber(&out, body.size());
        out += "\r\n";
    }
    if (!hasConnection)
        out += closeAfterResponse ? "connection: close\r\n" : "connection: keep-alive\r\n";
    out += "\r\n";
    return ZnString(std::move(out));
}
