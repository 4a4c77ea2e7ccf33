#include "McpRequests.h"

#include "LoadClient.h"

#include <cstdio>
#include <cstdlib>

namespace {

std::string headerOf(const std::string& answer, const std::string& name) {
    const std::size_t at = answer.find("\r\n" + name + ": ");
    if (at == std::string::npos)
        return {};
    const std::size_t begin = at + name.size() + 4;
    return answer.substr(begin, answer.find("\r\n", begin) - begin);
}

} // namespace

std::string post(const std::string& body, const std::string& sessionId) {
    std::string head = "POST /mcp HTTP/1.1\r\nhost: 127.0.0.1\r\ncontent-type: application/json\r\n"
                       "accept: application/json, text/event-stream\r\nmcp-protocol-version: 2025-06-18\r\n";
    if (!sessionId.empty())
        head += "mcp-session-id: " + sessionId + "\r\n";
    return head + "content-length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string initialize(unsigned short port, bool overTls) {
    const std::string answer =
        askOnce(port,
                post(R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18",)"
                     R"("capabilities":{},"clientInfo":{"name":"http_load","version":"1"}}})",
                     ""),
                overTls);
    const std::string sessionId = headerOf(answer, "mcp-session-id");
    if (sessionId.empty()) {
        std::fprintf(stderr, "initialize failed: %s\n", answer.c_str());
        std::exit(1);
    }
    return sessionId;
}
