#pragma once

#include "agent/McpForwardCall.h"
#include "core/types/ZnJsonObject.h"
#include "core/types/ZnJsonValue.h"
#include "core/types/ZnString.h"

#include <cstddef>
#include <optional>
#include <string_view>

/// How a request is put in revision 2026-07-28 of the protocol, which has no handshake: each one says in `_meta` who
/// asks in which version, and headers mirror parts of the body for those who do not read it.
namespace mcp {

constexpr const char* kModernVersion = "2026-07-28";
constexpr std::size_t kMaxMirrorBytes = 8192; // of a header that mirrors a name
constexpr std::size_t kMaxParamBytes = 4096;  // of one that mirrors an argument
constexpr std::size_t kMaxParams = 32;

/// A text as a header value: what may not stand in one, or would be changed on the way, goes as Base64 with a mark.
ZnString mirrorText(std::string_view text);
/// The same for a text, a whole number that every reader holds exactly, or a boolean; nothing for other values.
std::optional<ZnString> mirrorText(const ZnJsonValue& value);

/// The version that a message's `_meta` gives; nothing when it has none, or no text.
std::optional<std::string_view> modernVersion(const ZnJsonObject& message);
/// What `_meta` has to say of the agent, where it says nothing. The agent promises no capability.
void addModernMeta(ZnJsonObject* meta);
/// The same for the `_meta` of a request or notification that does not name a version. What is no object stays as it
/// is: the service is the one to refuse it.
void makeModern(ZnJsonObject* message);

/// Whether the message is of the handshake's era alone, so that it goes to any service as it is.
bool isOfHandshake(const ZnJsonObject& message);

/// Puts version, method and name of the message, which is modern, into the request's headers, of whatever length.
void mirror(const ZnJsonObject& message, McpForwardRequest* request);

bool hasHeader(const McpHeaderList& headers, const ZnString& name);
/// Adds an `Mcp-Param-` header for each member of the argument "headerParams". Null, or why that cannot be.
const char* addHeaderParams(const ZnJsonValue& params, McpHeaderList* headers);

/// Whether the service has refused a request, without acting on it, since its headers do not mirror the body.
bool refusesHeaders(const McpForwardResult& result);

} // namespace mcp
