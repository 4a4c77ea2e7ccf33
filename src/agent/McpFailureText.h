#pragma once

#include "core/types/ZnString.h"

namespace mcp {

/// Why a call to a service has failed, as a sentence for people and models. `errorCode` as ZnHttpClient, its sockets
/// and McpForwardCall give it; `detail`: what is known of a failure of TLS.
ZnString failureText(int errorCode, const ZnString& endpoint, int timeoutMs, const ZnString& detail);

/// The same for an answer whose status is none of success.
ZnString statusText(const ZnString& endpoint, int statusCode, const ZnString& reason);

/// The address of an endpoint as it may be shown, without user information and query.
ZnString endpointAddress(const ZnString& endpoint);

/// The endpoint as it may be shown: a password that stands in it, though it is no usable URL then, is left out.
ZnString withoutUserInformation(const ZnString& endpoint);

} // namespace mcp
