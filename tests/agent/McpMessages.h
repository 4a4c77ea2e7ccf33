#pragma once

#include <string>

// Messages that the tests of the agent send, with the id 1, and what they look for in answers.

inline std::string rpcMessage(const std::string& method, const std::string& params) {
    return R"({"jsonrpc":"2.0","id":1,"method":")" + method + R"(","params":)" + params + "}";
}
inline std::string toolCall(const std::string& tool, const std::string& arguments) {
    return rpcMessage("tools/call", R"({"name":")" + tool + R"(","arguments":)" + arguments + "}");
}
/// "bridge.rpc" with a request for that service.
inline std::string bridgeCall(const std::string& serviceId, const std::string& request = "{}") {
    return toolCall("bridge.rpc", R"({"serviceId":")" + serviceId + R"(","request":)" + request + "}");
}
inline const std::string kPing = R"({"jsonrpc":"2.0","id":1,"method":"ping"})";
inline const std::string kInitialize = rpcMessage("initialize", R"({"protocolVersion":"2025-06-18"})");

/// Whether `text` holds `part`.
inline bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}
/// The session that an answer with its head opens; empty when it opens none.
inline std::string sessionOf(const std::string& answer) {
    const std::string mark = "mcp-session-id: ";
    const std::size_t at = answer.find(mark);
    return at == std::string::npos ? "" : answer.substr(at + mark.size(), 48);
}
