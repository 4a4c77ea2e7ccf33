#include "core/io/http1/ZnHttpGrammar_.h"

#include "core/io/http1/ZnHttpWireText_.h"

#include <algorithm>

namespace zn::http::grammar {
namespace {

bool isControl(char c) noexcept {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

bool isLetter(char c) noexcept {
    return wire::lowerOf(c) >= 'a' && wire::lowerOf(c) <= 'z';
}

bool startsWithLower(std::string_view text, std::string_view prefix) noexcept {
    return wire::equalsLower(text.substr(0, prefix.size()), prefix);
}

void skipBlanks(std::string_view* text) noexcept {
    text->remove_prefix(std::min(text->find_first_not_of(" \t"), text->size()));
}

/// Takes a token off the front. False: there is none.
bool skipToken(std::string_view* text) noexcept {
    std::size_t byteCount = 0;
    while (byteCount < text->size() && wire::isToken(text->substr(byteCount, 1)))
        ++byteCount;
    text->remove_prefix(byteCount);
    return byteCount > 0;
}

/// Takes '"' ... '"' off the front; a backslash takes away the meaning of the byte behind it.
bool skipQuoted(std::string_view* text) noexcept {
    for (std::size_t i = 1; i < text->size(); ++i) {
        char c = (*text)[i];
        if (c == '"') {
            text->remove_prefix(i + 1);
            return true;
        }
        if (c == '\\' && ++i < text->size())
            c = (*text)[i];
        if (isControl(c) && c != '\t')
            return false;
    }
    return false;
}

/// Takes `sign` off the front, with the blanks around it. False, and nothing taken: it is not there.
bool skipSign(std::string_view* text, char sign) noexcept {
    std::string_view rest = *text;
    skipBlanks(&rest);
    if (!rest.starts_with(sign))
        return false;
    rest.remove_prefix(1);
    skipBlanks(&rest);
    *text = rest;
    return true;
}

/// Takes ";" name [ "=" value ] off the front.
bool skipExtension(std::string_view* text) noexcept {
    if (!skipSign(text, ';') || !skipToken(text))
        return false;
    if (!skipSign(text, '='))
        return true;
    return text->starts_with('"') ? skipQuoted(text) : skipToken(text);
}

} // namespace

bool isMethod(std::string_view text) noexcept {
    return wire::isToken(text) && std::none_of(text.begin(), text.end(), [](char c) { return c >= 'a' && c <= 'z'; });
}

bool isTarget(std::string_view method, std::string_view text) noexcept {
    if (std::any_of(text.begin(), text.end(), [](char c) { return isControl(c) || c == ' '; }))
        return false;
    return text.starts_with('/') || startsWithLower(text, "http://") || startsWithLower(text, "https://") ||
           (method == "OPTIONS" && text == "*");
}

bool isVersion(std::string_view text) noexcept {
    return text == "HTTP/1.1" || text == "HTTP/1.0";
}

bool isFieldLine(std::string_view line) noexcept {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || !wire::isToken(line.substr(0, colon)))
        return false;
    const std::string_view value = line.substr(colon + 1);
    return std::none_of(value.begin(), value.end(), [](char c) { return isControl(c) && c != '\t'; });
}

bool isHost(std::string_view text) noexcept {
    constexpr std::string_view kOthers = "-._~!$&'()*+,;=%[]:";
    const std::size_t colon = text.rfind(':');
    const bool hasPort = colon != std::string_view::npos && text.find(']', colon) == std::string_view::npos;
    const std::string_view port = hasPort ? text.substr(colon + 1) : std::string_view();
    return std::all_of(port.begin(), port.end(), isDigit) && std::all_of(text.begin(), text.end(), [&](char c) {
               return isLetter(c) || isDigit(c) || kOthers.find(c) != std::string_view::npos;
           });
}

bool isChunkSizeLine(std::string_view line) noexcept {
    const std::size_t digitCount = std::min(line.find_first_not_of("0123456789abcdefABCDEF"), line.size());
    line.remove_prefix(digitCount);
    while (!line.empty()) {
        if (!skipExtension(&line))
            return false;
    }
    return digitCount > 0;
}

} // namespace zn::http::grammar
