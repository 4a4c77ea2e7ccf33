#include "agent/AgentFixture.h"

namespace {

class McpDispatcherTest : public AgentFixture {};

TEST_F(McpDispatcherTest, EveryOutcomeOfAPost) {
    const std::string session = newSession();
    struct Row {
        const char* name;
        const char* session; // "" none, "good", or the value
        const char* version;
        const char* body;
        int status;
        const char* answer;
        bool interop = false;
    };
    const Row rows[] = {
        {"empty body", "", "", "", 400, R"({"error": "Expected a single JSON-RPC object"})"},
        {"batch", "", "", "[{}]", 400, R"({"error": "Expected a single JSON-RPC object"})"},
        {"no version, no id", "", "", R"({"method":"ping"})", 400, R"({"error": "Invalid JSON-RPC version"})"},
        {"no version", "", "", R"({"id":1,"method":"ping"})", 200,
         R"({"error": {"code": -32600,"message": "Invalid Request"},"id": 1,"jsonrpc": "2.0"})"},
        {"wrong version, unusable id", "", "", R"({"jsonrpc":"2.1","id":null})", 400,
         R"({"error": "Invalid JSON-RPC version"})"},
        {"response of a client", "", "", R"({"jsonrpc":"2.0","id":1,"result":{}})", 202, ""},
        {"scalar method", "good", "", R"({"jsonrpc":"2.0","id":1,"method":"true"})", 202, ""},
        {"other notification", "", "", R"({"jsonrpc":"2.0","method":"x"})", 202, ""},
        {"initialized", "good", "", R"({"jsonrpc":"2.0","method":"notifications/initialized"})", 202, ""},
        {"initialized without session", "", "", R"({"jsonrpc":"2.0","method":"notifications/initialized"})", 400,
         R"({"error": "Missing Mcp-Session-Id header"})"},
        {"initialized in an unknown session", "x", "", R"({"jsonrpc":"2.0","method":"notifications/initialized"})", 404, ""},
        {"wrong version header comes first", "", "1", R"({"jsonrpc":"2.0","id":1,"method":"initialize"})", 400,
         R"({"error": "Unsupported MCP protocol version"})"},
        {"null id", "good", "", R"({"jsonrpc":"2.0","id":null,"method":"ping"})", 200,
         R"({"error": {"code": -32600,"message": "Invalid Request"},"id": null,"jsonrpc": "2.0"})"},
        {"fractional id", "good", "", R"({"jsonrpc":"2.0","id":1.5,"method":"ping"})", 200,
         R"({"error": {"code": -32600,"message": "Invalid Request"},"id": null,"jsonrpc": "2.0"})"},
        {"no session", "", "", R"({"jsonrpc":"2.0","id":1,"method":"ping"})", 400,
         R"({"error": "Missing Mcp-Session-Id header"})"},
        {"unknown session", "x", "", R"({"jsonrpc":"2.0","id":1,"method":"ping"})", 404, ""},
        {"ping", " good ", " 2025-06-18 ", R"({"jsonrpc":" 2.0 ","id":"7","method":"ping"})", 200,
         R"({"id": 7,"jsonrpc": "2.0","result": {}})"},
        {"number version, whole id", "good", "", R"({"jsonrpc":2,"id":2.0,"method":"ping"})", 200,
         R"({"id": 2,"jsonrpc": "2.0","result": {}})"},
        {"text id", "good", "", R"({"jsonrpc":2.0,"id":"a\"b","method":"ping"})", 200,
         R"({"id": "a\"b","jsonrpc": "2.0","result": {}})"},
        {"method cut at NUL", "good", "", R"({"jsonrpc":2.0,"id":1,"method":"ping\u0000x"})", 200,
         R"({"id": 1,"jsonrpc": "2.0","result": {}})"},
        {"unknown method", "good", "", R"({"jsonrpc":"2.0","id":1,"method":"Ping"})", 200,
         R"({"error": {"code": -32601,"message": "Method not found"},"id": 1,"jsonrpc": "2.0"})"},
        {"initialize without version", "", "", R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":[]})", 200,
         R"({"error": {"code": -32602,"message": "Missing params.protocolVersion"},"id": 1,"jsonrpc": "2.0"})"},
        {"initialize with another version", "", "",
         R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":" 2024-11-05"}})", 200,
         R"({"error": {"code": -32602,"data": {"requested": "2024-11-05","supported": ["2025-06-18"]},"message": "Unsupported protocol version"},"id": 1,"jsonrpc": "2.0"})"},
        {"call without params", "good", "", R"({"jsonrpc":"2.0","id":1,"method":"tools/call"})", 200,
         R"({"error": {"code": -32602,"message": "tools/call requires an object params payload"},"id": 1,"jsonrpc": "2.0"})"},
        {"call without name", "good", "", R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":" "}})", 200,
         R"({"error": {"code": -32602,"message": "tools/call requires params.name"},"id": 1,"jsonrpc": "2.0"})"},
        {"call with wrong arguments", "good", "",
         R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"x","arguments":5}})", 200,
         R"({"error": {"code": -32602,"message": "tools/call params.arguments must be an object"},"id": 1,"jsonrpc": "2.0"})"},
        {"call of an unknown tool", "good", "",
         R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"BRIDGE.RPC","arguments":null}})", 200,
         R"({"id": 1,"jsonrpc": "2.0","result": {"content": [{"text": "{\"error\": \"Unknown tool: BRIDGE.RPC\",\"statusCode\": 404}","type": "text"}],"isError": true,"structuredContent": {"error": "Unknown tool: BRIDGE.RPC","statusCode": 404}}})"},
        {"exact text id", "good", "", R"({"jsonrpc":"2.0","id":"7","method":"ping"})", 200,
         R"({"id": "7","jsonrpc": "2.0","result": {}})", true},
        {"exact whole id", "good", "", R"({"jsonrpc":2,"id":2.0,"method":"ping"})", 200,
         R"({"id": 2.0,"jsonrpc": "2.0","result": {}})", true},
        {"exact large id", "good", "", R"({"jsonrpc":2.0,"id":12345678901234567890,"method":"ping"})", 200,
         R"({"id": 12345678901234567890,"jsonrpc": "2.0","result": {}})", true},
        {"exact fractional id", "good", "", R"({"jsonrpc":"2.0","id":1.5,"method":"ping"})", 200,
         R"({"error": {"code": -32600,"message": "Invalid Request"},"id": null,"jsonrpc": "2.0"})", true},
        {"exact wrong version", "", "", R"({"jsonrpc":"2.1","id":"1"})", 200,
         R"({"error": {"code": -32600,"message": "Invalid Request"},"id": "1","jsonrpc": "2.0"})", true},
        {"a method with a scalar's name", "good", "", R"({"jsonrpc":"2.0","id":1,"method":"true"})", 200,
         R"({"error": {"code": -32601,"message": "Method not found"},"id": 1,"jsonrpc": "2.0"})", true},
        {"newer version header", "", "2025-11-25", R"({"jsonrpc":"2.0","id":1,"method":"initialize"})", 400,
         R"({"error": "Unsupported MCP protocol version"})", true},
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
    const ZnHttpResponse response =
        call("POST", "/mcp", {},
             R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18"}})");
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
    const ZnHttpResponse newer =
        call("POST", "/mcp", {}, R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-11-25"}})");
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
    const char* initialize =
        R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18"}})";
    const char* refused = R"({"error": {"code": -32000,"message": "Too many sessions"},"id": 1,"jsonrpc": "2.0"})";
    const char* ping = R"({"jsonrpc":"2.0","id":1,"method":"ping"})";
    EXPECT_EQ(bodyOf(call("POST", "/mcp", {}, initialize)), refused);
    nowNs_ += McpSessionTable::kIdleNs - 1;
    EXPECT_EQ(call("POST", "/mcp", {{"mcp-session-id", first}}, ping).status, 200);
    EXPECT_EQ(bodyOf(call("POST", "/mcp", {}, initialize)), refused);
    nowNs_ += 1;
    for (std::size_t i = 1; i < McpSessionTable::kMaxSessions; ++i)
        ASSERT_NE(newSession(), "absent");
    EXPECT_EQ(bodyOf(call("POST", "/mcp", {}, initialize)), refused) << "the one in use is left";
    EXPECT_EQ(call("POST", "/mcp", {{"mcp-session-id", first}}, ping).status, 200);
}

TEST_F(McpDispatcherTest, ToolsList) {
    const ZnHttpResponse response =
        call("POST", "/mcp", {{"mcp-session-id", newSession()}}, R"({"jsonrpc":"2.0","id":1,"method":"tools/list"})");
    EXPECT_EQ(
        bodyOf(response),
        R"({"id": 1,"jsonrpc": "2.0","result": {"tools": [)"
        R"({"description": "List MCP services explicitly configured in this local bridge allowlist.","inputSchema": )"
        R"({"properties": {},"type": "object"},"name": "bridge.list_services","title": "List private MCP services"},)"
        R"({"description": "Return one configured MCP service without leaking its bearer token.","inputSchema": )"
        R"({"properties": {"serviceId": {"description": "Configured service id.","type": "string"}},"required": )"
        R"(["serviceId"],"type": "object"},"name": "bridge.get_service","title": "Get private MCP service"},)"
        R"({"description": "Forward one JSON-RPC request to a configured private Streamable HTTP MCP service.",)"
        R"("inputSchema": {"properties": {"protocolVersion": {"description": "Optional MCP protocol version header.",)"
        R"("type": "string"},"request": {"additionalProperties": true,"description": "Single JSON-RPC MCP request to )"
        R"(forward.","type": "object"},"serviceId": {"description": "Configured service id.","type": "string"},)"
        R"("sessionId": {"description": "Optional upstream MCP session id.","type": "string"}},"required": )"
        R"(["serviceId","request"],"type": "object"},"name": "bridge.rpc","title": "Call private MCP service"}]}})");
}

} // namespace
