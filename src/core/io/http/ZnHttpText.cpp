#include "core/io/http/ZnHttpText.h"

#include <array>

namespace zn::http {
namespace {

constexpr std::array<bool, 256> makeTokenTable() {
    std::array<bool, 256> table{};
    for (unsigned c = '0'; c <= '9'; ++c)
        table[c] = true;
    for (unsigned c = 'a'; c <= 'z'; ++c)
        table[c] = table[c - 'a' + 'A'] = true;
    for (const char c : std::string_view("!#$%&'*+-.^_`|~"))
        table[static_cast<unsigned char>(c)] = true;
    return table;
}

constexpr std::array<bool, 256> kTokenTable = makeTokenTable();

} // namespace

bool isToken(std::string_view name) noexcept {
    for (const char c : name) {
        if (!kTokenTable[static_cast<unsigned char>(c)])
            return false;
    }
    return !name.empty();
}

bool isSafeLineText(std::string_view text) noexcept {
    for (const char c : text) {
        // One comparison for nearly every byte.
        if (static_cast<unsigned char>(c) <= '\r' && (c == '\r' || c == '\n' || c == '\0'))
            return false;
    }
    return true;
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
