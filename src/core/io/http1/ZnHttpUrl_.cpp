#include "core/io/http1/ZnHttpUrl_.h"

#include "core/io/http1/ZnHttpWireText_.h"
#include "core/platform/ZnSocketHandle.h"

#include <algorithm>
#include <limits>

namespace {

/// Blanks and control characters would end the request line early.
bool isSafeUrlText(std::string_view text) {
    return std::none_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte <= 0x20 || byte == 0x7F;
    });
}

} // namespace

bool ZnHttpUrl_::parse(std::string_view text, ZnHttpUrl_* url) {
    constexpr std::string_view kPlain = "http://";
    constexpr std::string_view kTls = "https://";
    url->useTls = zn::http::wire::equalsLower(text.substr(0, kTls.size()), kTls);
    if (!url->useTls && !zn::http::wire::equalsLower(text.substr(0, kPlain.size()), kPlain))
        return false;
    url->port = url->defaultPort();
    const std::string_view rest = text.substr(url->useTls ? kTls.size() : kPlain.size());
    const std::size_t pathAt = std::min(rest.find('/'), rest.size());
    url->path = pathAt == rest.size() ? ZnString("/") : ZnString(rest.substr(pathAt));
    return isSafeUrlText(rest) && url->parseAuthority_(rest.substr(0, pathAt));
}

/// A name or an address, the latter in brackets if it is one of IPv6, and perhaps a port.
bool ZnHttpUrl_::parseAuthority_(std::string_view authority) {
    if (authority.find('@') != std::string_view::npos)
        return false; // user information: a password, which would end up wherever URLs are shown
    const bool isBracketed = authority.starts_with('[');
    const std::size_t hostAt = isBracketed ? 1 : 0;
    const std::size_t hostEnd = std::min(authority.find(isBracketed ? ']' : ':'), authority.size());
    host = ZnString(authority.substr(hostAt, hostEnd - hostAt));
    const std::string_view portText = authority.substr(std::min(hostEnd + hostAt, authority.size()));
    if (isBracketed) {
        const bool isAddress = ZnSocketAddress::fromNumeric(host, 0).family() == ZnSocketAddress::Family::IPv6;
        if (!isAddress || hostEnd == authority.size() || (!portText.empty() && !portText.starts_with(':')))
            return false;
    }
    if (!portText.empty()) {
        bool isNumber = false;
        const long long number =
            ZnString(portText.substr(1)).toLongLong(&isNumber); // says nothing about a text that is none
        if (!isNumber || number < 1 || number > std::numeric_limits<std::uint16_t>::max())
            return false;
        port = static_cast<std::uint16_t>(number);
    }
    return !host.isEmpty();
}

ZnString ZnHttpUrl_::hostText() const {
    ZnString text = host.contains(":") ? "[" + host + "]" : host;
    if (port != defaultPort())
        text.append(":").append(ZnString::number(port).view());
    return text;
}
