#include "agent/AgentFixture.h"

namespace {

class McpDispatcherTest : public AgentFixture {
protected:
    static std::string error(int code, const std::string& message, const std::string& id = "1", const std::string& data = {}) {
        return R"({"error": {"code": )" + std::to_string(code) + data + R"(,"message": ")" + message + R"("},"id": )" + id +
               R"(,"jsonrpc": "2.0"})";
    }
    static std::string pong(const std::string& id) { return R"({"id": )" + id + R"(,"jsonrpc": "2.0","result": {}})"; }
    static std::string refused(const std::string& text) { return R"({"error": ")" + text + R"("})"; }
    /// A message without an id.
    static std::string notification(const std::string& method) { return R"({"jsonrpc":"2.0","method":")" + method + "\"}"; }
};

TEST_F(McpDispatcherTest, EveryOutcomeOfAPost) {
    const std::string session = newSession();
    const std::string initialized = notification("notifications/initialized");
    struct Row {
        const char* name;
        const char* session; // "" none, "good", or the value
        const char* version;
        std::string body;
        int status;
        std::string answer;
        bool interop = false;
    };
    const Row rows[] = {
        {"empty body", "", "", "", 400, refused("Expected a single JSON-RPC object")},
        {"batch", "", "", "[{}]", 400, refused("Expected a single JSON-RPC object")},
        {"no version", "", "", R"({"id":1,"method":"ping"})", 200, error(-32600, "Invalid Request")},
        {"wrong version, no id", "", "", R"({"jsonrpc":"2.1","id":null})", 400, refused("Invalid JSON-RPC version")},
        {"response of a client", "", "", R"({"jsonrpc":"2.0","id":1,"result":{}})", 202, ""},
        {"scalar method", "good", "", R"({"jsonrpc":"2.0","id":1,"method":"true"})", 202, ""},
        {"other notification", "", "", notification("x"), 202, ""},
        {"initialized", "good", "", initialized, 202, ""},
        {"initialized without session", "", "", initialized, 400, refused("Missing Mcp-Session-Id header")},
        {"initialized in an unknown session", "x", "", initialized, 404, ""},
        {"wrong version header", "", "1", kInitialize, 400, refused("Unsupported MCP protocol version")},
        {"null id", "good", "", R"({"jsonrpc":"2.0","id":null,"method":"ping"})", 200,
         error(-32600, "Invalid Request", "null")},
        {"fraction", "good", "", R"({"jsonrpc":"2.0","id":1.5,"method":"ping"})", 200, error(-32600, "Invalid Request", "null")},
        {"no session", "", "", kPing, 400, refused("Missing Mcp-Session-Id header")},
        {"unknown session", "x", "", kPing, 404, ""},
        {"ping", " good ", " 2025-06-18 ", R"({"jsonrpc":" 2.0 ","id":"7","method":"ping"})", 200, pong("7")},
        {"number version, whole id", "good", "", R"({"jsonrpc":2,"id":2.0,"method":"ping"})", 200, pong("2")},
        {"text id, method cut at NUL", "good", "", R"({"jsonrpc":2.0,"id":"a\"b","method":"ping\u0000x"})", 200,
         pong(R"("a\"b")")},
        {"unknown method", "good", "", rpcMessage("Ping", "{}"), 200, error(-32601, "Method not found")},
        {"initialize without version", "", "", rpcMessage("initialize", "[]"), 200,
         error(-32602, "Missing params.protocolVersion")},
        {"initialize with another version", "", "", rpcMessage("initialize", R"({"protocolVersion":" 2024-11-05"})"), 200,
         error(-32602, "Unsupported protocol version", "1",
               R"(,"data": {"requested": "2024-11-05","supported": ["2025-06-18"]})")},
        {"call without params", "good", "", rpcMessage("tools/call", "null"), 200,
         error(-32602, "tools/call requires an object params payload")},
        {"call without name", "good", "", toolCall(" ", "{}"), 200, error(-32602, "tools/call requires params.name")},
        {"call with wrong arguments", "good", "", toolCall("x", "5"), 200,
         error(-32602, "tools/call params.arguments must be an object")},
        {"call of an unknown tool", "good", "", toolCall("BRIDGE.RPC", "null"), 200,
         R"({"id": 1,"jsonrpc": "2.0","result": {"content": [{"text": "{\"error\": \"Unknown tool: BRIDGE.RPC\",)"
         R"(\"statusCode\": 404}","type": "text"}],"isError": true,"structuredContent": {"error": "Unknown tool: BRIDGE.RPC","statusCode": 404}}})"},
        {"exact text id", "good", "", R"({"jsonrpc":"2.0","id":"7","method":"ping"})", 200, pong(R"("7")"), true},
        {"exact whole id", "good", "", R"({"jsonrpc":2,"id":2.0,"method":"ping"})", 200, pong("2.0"), true},
        {"exact large id", "good", "", R"({"jsonrpc":2.0,"id":12345678901234567890,"method":"ping"})", 200,
         pong("12345678901234567890"), true},
        {"exact wrong version", "", "", R"({"jsonrpc":"2.1","id":"1"})", 200, error(-32600, "Invalid Request", R"("1")"), true},
        {"a method with a scalar's name", "good", "", R"({"jsonrpc":"2.0","id":1,"method":"true"})", 200,
         error(-32601, "Method not found"), true},
        {"newer version header", "", "2025-11-25", kInitialize, 400, refused("Unsupported MCP protocol version"), true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        agent_.setInterop(row.interop);
        Headers headers;
        std::string sessionHeader = row.session;
        if (const std::size_t at = sessionHeader.find("good"); at != std::string::npos)
            sessionHeader.replace(at, 4, session);
        if (!sessionHeader.empty())
            headers.push_back({"mcp-session-id", sessionHeader});
        if (*row.version != '\0')
            headers.push_back({"mcp-protocol-version", row.version});
        const ZnHttpResponse response = call("POST", "/mcp", headers, row.body);
        EXPECT_EQ(response.status, row.status);
        EXPECT_EQ(bodyOf(response), row.answer);
        EXPECT_EQ(header(response, "mcp-session-id"), "absent");
        EXPECT_EQ(header(response, "cache-control"), "no-store");
    }
}

TEST_F(McpDispatcherTest, InitializeOpensASessionAndDeleteEndsIt) {
    const ZnHttpResponse response = post(kInitialize);
    const std::string id = header(response, "mcp-session-id");
    EXPECT_EQ(id.size(), 48u);
    EXPECT_EQ(id.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_NE(id, newSession());
    EXPECT_EQ(bodyOf(response),
              R"({"id": 1,"jsonrpc": "2.0","result": {"capabilities": {"tools": {"listChanged": false}},)"
              R"("instructions": "Bridge to explicitly configured private MCP services reachable from this BRELT client. )"
              R"(Use bridge.list_services first. bridge.rpc only calls services listed in the local allowlist.",)"
              R"("protocolVersion": "2025-06-18","serverInfo": {"name": "brelt-mcp-bridge-agent",)"
              R"("title": "Brelt MCP Bridge Agent","version": "0.1.0"}}})");
    agent_.setInterop(true);
    const ZnHttpResponse newer = post(rpcMessage("initialize", R"({"protocolVersion":"2025-11-25"})"));
    EXPECT_EQ(bodyOf(newer), bodyOf(response)) << "another version gets the same result";
    EXPECT_EQ(header(newer, "mcp-session-id").size(), 48u);
    EXPECT_EQ(call("DELETE", "/mcp").status, 400);
    EXPECT_EQ(call("DELETE", "/mcp", {{"mcp-session-id", "x"}}).status, 404);
    EXPECT_EQ(call("DELETE", "/mcp", {{"mcp-session-id", id}}).status, 204);
    EXPECT_EQ(call("DELETE", "/mcp", {{"mcp-session-id", id}}).status, 404);
}

TEST_F(McpDispatcherTest, ASessionInUseNeverMakesRoom) {
    const std::string first = newSession();
    for (std::size_t i = 1; i < McpSessionTable::kMaxSessions; ++i)
        newSession();
    const std::string tooMany = error(-32000, "Too many sessions");
    EXPECT_EQ(bodyOf(post(kInitialize)), tooMany);
    nowNs_ += McpSessionTable::kIdleNs - 1;
    EXPECT_EQ(post(kPing, first).status, 200);
    EXPECT_EQ(bodyOf(post(kInitialize)), tooMany);
    nowNs_ += 1;
    for (std::size_t i = 1; i < McpSessionTable::kMaxSessions; ++i)
        ASSERT_NE(newSession(), "absent");
    EXPECT_EQ(bodyOf(post(kInitialize)), tooMany) << "the one in use is left";
    EXPECT_EQ(post(kPing, first).status, 200);
}

TEST_F(McpDispatcherTest, ToolsList) {
    const std::string serviceId = R"("serviceId": {"description": "Configured service id.","type": "string"})";
    EXPECT_EQ(
        bodyOf(post(rpcMessage("tools/list", "{}"), newSession())),
        R"({"id": 1,"jsonrpc": "2.0","result": {"tools": [{"description": "List MCP services explicitly configured in this )"
        R"(local bridge allowlist.","inputSchema": {"properties": {},"type": "object"},"name": "bridge.list_services",)"
        R"("title": "List private MCP services"},{"description": "Return one configured MCP service without leaking its )"
        R"(bearer token.","inputSchema": {"properties": {)" + serviceId + R"(},"required": ["serviceId"],"type": "object"},)"
        R"("name": "bridge.get_service","title": "Get private MCP service"},{"description": "Forward one JSON-RPC request )"
        R"(to a configured private Streamable HTTP MCP service.","inputSchema": {"properties": {"protocolVersion": )"
        R"({"description": "Optional MCP protocol version header.","type": "string"},"request": {"additionalProperties": )"
        R"(true,"description": "Single JSON-RPC MCP request to forward.","type": "object"},)" + serviceId +
        R"(,"sessionId": {"description": "Optional upstream MCP session id.","type": "string"}},"required": )"
        R"(["serviceId","request"],"type": "object"},"name": "bridge.rpc","title": "Call private MCP service"}]}})");
}

} // namespace
