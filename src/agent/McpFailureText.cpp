#include "agent/McpFailureText.h"

#include "agent/McpForwardCall.h"
#include "agent/McpText.h"
#include "core/io/ZnSslSocket.h"
#include "core/platform/ZnSocketError.h"

namespace mcp {
namespace {

/// Of "... verify=10 (certificate has expired) ..." what stands in the brackets; empty without it.
ZnString verificationText(const ZnString& detail) {
    const std::size_t at = detail.view().find("verify=");
    const std::size_t begin = detail.view().find('(', at == std::string_view::npos ? detail.size() : at);
    const std::size_t end = detail.view().find(')', begin == std::string_view::npos ? detail.size() : begin);
    return end == std::string_view::npos ? ZnString() : ZnString(detail.view().substr(begin + 1, end - begin - 1));
}

ZnString tlsText(const ZnString& detail, const ZnString& address) {
    const ZnString verification = verificationText(detail);
    if (!verification.isEmpty())
        return "the certificate of " + address + " is not accepted: " + printable(verification.view());
    return "TLS with " + address + " failed";
}

} // namespace

ZnString endpointAddress(const ZnString& endpoint) {
    std::string_view text = endpoint.view();
    const std::size_t schemeEnd = text.find("://");
    if (schemeEnd != std::string_view::npos)
        text.remove_prefix(schemeEnd + 3);
    text = text.substr(0, text.find_first_of("/?#"));
    text.remove_prefix(text.rfind('@') + 1); // 0 without one
    return printable(text);
}

ZnString withoutUserInformation(const ZnString& endpoint) {
    const std::string_view text = endpoint.view();
    const std::size_t schemeEnd = text.find("://");
    const std::size_t begin = schemeEnd == std::string_view::npos ? 0 : schemeEnd + 3;
    const std::size_t at = text.substr(0, text.find_first_of("/?#", begin)).rfind('@');
    if (at == std::string_view::npos || at < begin)
        return endpoint;
    return ZnString(text.substr(0, begin)) + ZnString(text.substr(at + 1));
}

ZnString statusText(const ZnString& endpoint, int statusCode, const ZnString& reason) {
    if (statusCode == 0)
        return "the answer of " + endpointAddress(endpoint) + " is malformed"; // no status line
    const ZnString words = reason.isEmpty() ? ZnString() : " " + printable(reason.view(), 40);
    return endpointAddress(endpoint) + " answered with status " + ZnString::number(statusCode) + words;
}

ZnString failureText(int errorCode, const ZnString& endpoint, int timeoutMs, const ZnString& detail) {
    const ZnString address = endpointAddress(endpoint);
    switch (errorCode) {
    case ZnHttpClient::kUrlNotAccepted: return "the endpoint in the allowlist is no usable URL";
    case ZnHttpClient::kConnectNotBegun: return "the connection to " + address + " could not begin";
    case ZnHttpClient::kInvalidChunkSize:
    case ZnHttpClient::kInvalidChunkEnd: return "the answer of " + address + " is malformed";
    case ZnHttpClient::kResponseTooLarge: return "the answer of " + address + " is too large";
    case ZnHttpClient::kClosedEarly: return address + " closed the connection before its answer was complete";
    case McpForwardCall::kTimedOut: return "no answer within " + ZnString::number(timeoutMs) + " ms";
    case McpForwardCall::kCancelled: return "the client has cancelled the call";
    case McpForwardCall::kStopped: return "the agent was stopped";
    case ZnSocketError::kConnectionRefused: return "connection refused by " + address;
    case ZnSocketError::kTimedOut: return address + " did not answer the connection attempt";
    case ZnSocketError::kConnectionReset: return address + " reset the connection";
    case ZnSocketError::kHostUnreachable:
    case ZnSocketError::kNetworkUnreachable: return address + " cannot be reached";
    case ZnSocketError::kHostNotFound: return "the host name of " + address + " is not known";
    case ZnSslSocket::kHandshakeFailed:
    case ZnSslSocket::kReadFailed: return tlsText(detail, address);
    default: return "the connection to " + address + " failed (" + ZnString::number(errorCode) + ")";
    }
}

} // namespace mcp
