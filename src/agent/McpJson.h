#pragma once

#include "core/types/ZnByteArray.h"
#include "core/types/ZnJsonArray.h"
#include "core/types/ZnJsonDocument.h"
#include "core/types/ZnJsonObject.h"
#include "core/types/ZnJsonValue.h"
#include "core/types/ZnString.h"

#include <cstddef>
#include <optional>
#include <string_view>

/// The JSON forms that the agent produces and the one in which it reads text.
///
/// Answers are put together from compact JSON texts with sorted members, and not from trees: a result may hold a large
/// upstream body, which stands in it twice, as a value and as escaped text.
namespace mcp {

/// No more values are taken from one message, of a client or of a service: a large one of tiny values would be slow to
/// go through, and needs a multiple of its size.
constexpr std::size_t kMaxJsonValues = 1000000;

/// Reads a message: text without its NUL bytes and a byte order mark in front, of at most kMaxJsonValues values. False,
/// with `*document` as it was, when it is no single JSON object.
bool readObject(std::string_view text, JsonReading reading, ZnJsonDocument* document);

/// The trimmed text of a member, cut at its first NUL; empty when absent, null, an object or an array.
ZnString textMember_(const ZnJsonObject& object, std::string_view name);

/// What a request's params say about progress; nothing without a text or a whole number.
std::optional<ZnJsonValue> progressToken(const ZnJsonObject& params);

/// Whether it can be told back to the client as the id of its request: null, booleans, containers and fractions cannot.
bool isUsableId(const ZnJsonValue& id);
/// Of the request that a notification cancels, as JSON; empty without one.
ZnString cancelledId(const ZnJsonObject& notification);

// What the agent says of itself.
ZnJsonObject serverInfo();
ZnJsonObject serverCapabilities();

/// {"error": message}
ZnJsonObject errorBody_(const char* message);

/// Puts blanks in the place of line ends, which can only stand between the tokens of a JSON text.
void makeOneLine(ZnByteArray* text);

// JSON-RPC responses, as text. `resultText` and `idText` are JSON.
ZnString jsonRpcResultTo_(std::string_view idText, std::string_view resultText);
ZnString jsonRpcResult_(const ZnJsonValue& id, std::string_view resultText);
/// "data" is left out when it is null.
ZnString jsonRpcError_(const ZnJsonValue& id, int code, const char* message, ZnJsonValue data = ZnJsonValue());

// The result in a response that jsonRpcResultTo_ has made, as text: empty in one with an error.
std::string_view resultOf(std::string_view response);
/// Adds `members`, without the braces around them, in front of those of the result; nothing where there is none.
void addToResult(ZnByteArray* response, std::string_view members);
/// Whether an object has a member, from its text as the agent writes it.
bool hasMember(std::string_view objectText, std::string_view name);

// Tool results, as text.
ZnString toolResult_(const ZnJsonValue& payload, bool isError);
ZnString toolError_(const ZnString& message, int statusCode);

} // namespace mcp
