#include "core/io/http/ZnHttpText.h"

#include "core/io/http1/ZnHttpWireText_.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

namespace zn::http {
namespace {

using ByteTable = std::array<bool, 256>;

/// Letters, digits and `others`.
constexpr ByteTable makeTable(std::string_view others) {
    ByteTable table{};
    for (unsigned c = '0'; c <= '9'; ++c)
        table[c] = true;
    for (unsigned c = 'a'; c <= 'z'; ++c)
        table[c] = table[c - 'a' + 'A'] = true;
    for (const char c : others)
        table[static_cast<unsigned char>(c)] = true;
    return table;
}

constexpr ByteTable kPathTable = makeTable("-._~!$&'()*+,;=:@/");
constexpr ByteTable kQueryTable = makeTable("-._~!$&'()*+,;=:@/?%");

void appendEncoded(std::string* out, std::string_view text, const ByteTable& allowed) {
    constexpr const char* kDigits = "0123456789ABCDEF";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (allowed[byte])
            *out += c;
        else
            (*out += '%').append({kDigits[byte >> 4], kDigits[byte & 15]});
    }
}

} // namespace

bool isToken(std::string_view name) noexcept {
    return wire::isToken(name);
}

bool isSafeLineText(std::string_view text) noexcept {
    return wire::isSafeLineText(text);
}

ZnString encodedPath(std::string_view path) {
    std::string out = "/";
    appendEncoded(&out, path.substr(std::min(path.find_first_not_of('/'), path.size())), kPathTable);
    return ZnString(std::move(out));
}

ZnString encodedQuery(std::string_view query) {
    std::string out;
    appendEncoded(&out, query, kQueryTable);
    return ZnString(std::move(out));
}

const char* reasonPhrase(int status) noexcept {
    switch (status) {
    case 101: return "Switching Protocols";
    case 200: return "OK";
    case 201: return "Created";
    case 204: return "No Content";
    case 206: return "Partial Content";
    case 301: return "Moved Permanently";
    case 302: return "Found";
    case 304: return "Not Modified";
    case 308: return "Permanent Redirect";
    case 400: return "Bad Request";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 408: return "Request Timeout";
    case 411: return "Length Required";
    case 413: return "Payload Too Large";
    case 414: return "URI Too Long";
    case 416: return "Range Not Satisfiable";
    case 426: return "Upgrade Required";
    case 429: return "Too Many Requests";
    case 431: return "Request Header Fields Too Large";
    case 500: return "Internal Server Error";
    case 501: return "Not Implemented";
    case 502: return "Bad Gateway";
    case 503: return "Service Unavailable";
    case 504: return "Gateway Timeout";
    default: return "HTTP Response";
    }
}

} // namespace zn::http
