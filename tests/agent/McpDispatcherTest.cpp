#include "agent/AgentFixture.h"
#include "agent/McpRpcAnswer.h"

#include <thread>

namespace {

class McpDispatcherTest : public AgentFixture {
protected:
    static std::string error(int code, const std::string& message, const std::string& id = "1") {
        return R"({"error": {"code": )" + std::to_string(code) + R"(,"message": ")" + message + R"("},"id": )" + id +
               R"(,"jsonrpc": "2.0"})";
    }
    static std::string pong(const std::string& id) { return R"({"id": )" + id + R"(,"jsonrpc": "2.0","result": {}})"; }
    static std::string refused(const std::string& text) { return R"({"error": ")" + text + R"("})"; }
    static std::string ping(const std::string& id, const std::string& version = R"("2.0")") {
        return R"({"jsonrpc":)" + version + R"(,"id":)" + id + R"(,"method":"ping"})";
    }
    void expectAnswer(const Headers& headers, const std::string& body, int status, const std::string& answer) {
        SCOPED_TRACE(body.substr(0, 200));
        const ZnHttpResponse response = call("POST", "/mcp", headers, body);
        EXPECT_EQ(response.status, status);
        EXPECT_EQ(bodyOf(response), answer);
        EXPECT_EQ(header(response, "mcp-session-id"), "absent");
        EXPECT_EQ(header(response, "cache-control"), "no-store");
    }
};

TEST_F(McpDispatcherTest, WhatNeedsNoSessionOrHasAWrongOne) {
    const std::string initialized = R"({"jsonrpc":"2.0","method":"notifications/initialized"})";
    const Headers none;
    const Headers unknown = {{"mcp-session-id", "x"}};
    const Headers newer = {{"mcp-protocol-version", "2025-11-25"}};
    std::string tooManyValues = R"({"jsonrpc":"2.0","id":1,"method":"ping","params":[)";
    for (int value = 0; value < 1000000; ++value)
        tooManyValues += "1,";
    struct Row {
        Headers headers;
        std::string body;
        int status;
        std::string answer;
    };
    const Row rows[] = {{none, "", 400, refused("Expected a single JSON-RPC object")},
                        {none, "[{}]", 400, refused("Expected a single JSON-RPC object")},
                        {none, tooManyValues + "1]}", 400, refused("Expected a single JSON-RPC object")},
                        {none, R"({"id":1,"method":"ping"})", 200, error(-32600, "Invalid Request")},
                        {none, R"({"jsonrpc":"2.1","id":null})", 400, refused("Invalid JSON-RPC version")},
                        {none, R"({"jsonrpc":"2.0","id":1,"result":{}})", 202, ""}, // a client's response
                        {none, R"({"jsonrpc":"2.0","method":"x"})", 202, ""},
                        {{{"mcp-session-id", newSession()}}, initialized, 202, ""},
                        {none, initialized, 400, refused("Missing Mcp-Session-Id header")},
                        {unknown, initialized, 404, ""},
                        {none, kPing, 400, refused("Missing Mcp-Session-Id header")},
                        {unknown, kPing, 404, ""},
                        {newer, kInitialize, 400, refused("Unsupported MCP protocol version")}};
    for (const Row& row : rows)
        expectAnswer(row.headers, row.body, row.status, row.answer);
    agent_.setInterop(true);
    expectAnswer(newer, kInitialize, 400, refused("Unsupported MCP protocol version"));
    expectAnswer(none, R"({"jsonrpc":"2.1","id":"1"})", 200, error(-32600, "Invalid Request", R"("1")"));
}

TEST_F(McpDispatcherTest, RequestsInASession) {
    const Headers headers = {{"mcp-session-id", " " + newSession() + " "}, {"mcp-protocol-version", " 2025-06-18 "}};
    expectAnswer(headers, R"({"jsonrpc":"2.0","id":1,"method":"true"})", 202, ""); // no text, so a client's response
    struct Row {
        std::string body;
        std::string answer;
        bool interop = false;
    };
    const Row rows[] = {
        {ping("null"), error(-32600, "Invalid Request", "null")},
        {ping("1.5"), error(-32600, "Invalid Request", "null")},
        {ping(R"("7")", R"(" 2.0 ")"), pong("7")},
        {ping("2.0", "2"), pong("2")},
        {R"({"jsonrpc":2.0,"id":"a\"b","method":"ping\u0000x"})", pong(R"("a\"b")")},
        {rpcMessage("Ping", "{}"), error(-32601, "Method not found")},
        {rpcMessage("initialize", "[]"), error(-32602, "Missing params.protocolVersion")},
        {rpcMessage("initialize", R"({"protocolVersion":" 2024-11-05"})"),
         R"({"error": {"code": -32602,"data": {"requested": "2024-11-05","supported": ["2025-06-18"]},)"
         R"("message": "Unsupported protocol version"},"id": 1,"jsonrpc": "2.0"})"},
        {rpcMessage("tools/call", "null"), error(-32602, "tools/call requires an object params payload")},
        {toolCall(" ", "{}"), error(-32602, "tools/call requires params.name")},
        {toolCall("x", "5"), error(-32602, "tools/call params.arguments must be an object")},
        {toolCall("BRIDGE.RPC", "null"),
         R"({"id": 1,"jsonrpc": "2.0","result": {"content": [{"text": "{\"error\": \"Unknown tool: BRIDGE.RPC\",)"
         R"(\"statusCode\": 404}","type": "text"}],"isError": true,"structuredContent": )"
         R"({"error": "Unknown tool: BRIDGE.RPC","statusCode": 404}}})"},
        {ping(R"("7")"), pong(R"("7")"), true},
        {ping("2.0", "2"), pong("2.0"), true},
        {ping("12345678901234567890"), pong("12345678901234567890"), true},
        {R"({"jsonrpc":"2.0","id":1,"method":"true"})", error(-32601, "Method not found"), true}};
    for (const Row& row : rows) {
        agent_.setInterop(row.interop);
        expectAnswer(headers, row.body, 200, row.answer);
    }
}

TEST_F(McpDispatcherTest, InitializeOpensASessionAndDeleteEndsIt) {
    const ZnHttpResponse response = post(kInitialize);
    const std::string id = header(response, "mcp-session-id");
    EXPECT_EQ(id.size(), 48u);
    EXPECT_EQ(id.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_NE(id, newSession());
    EXPECT_EQ(
        bodyOf(response),
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
    for (const int status : {204, 404})
        EXPECT_EQ(call("DELETE", "/mcp", {{"mcp-session-id", id}}).status, status);
}

TEST_F(McpDispatcherTest, LargeMessagesGetTheSameAnswersAwayFromTheLoop) {
    const std::string session = newSession();
    bool isOnLoop = true;
    Peer::setClock(agent_, [&, loop = std::this_thread::get_id()] { // asked for every session, last of all
        isOnLoop = std::this_thread::get_id() == loop;
        return nowNs_;
    });
    const auto answerOf = [&](const std::string& body, bool isLarge) {
        const auto response = std::make_shared<ZnHttpResponse>();
        bool isDone = false;
        ZnTask task([&, response] {
            *response = post(isLarge ? body + std::string(McpRpcAnswer::kLargeBytes, ' ') : body, session);
            isDone = true;
        });
        EXPECT_TRUE(application_.post(task, {.whenFull = ZnPostOptions::WhenFull::Wait}));
        EXPECT_TRUE(runUntil([&] { return isDone; }));
        std::string text = std::to_string(response->status) + " " + bodyOf(*response);
        for (const auto& [name, value] : response->headers)
            text += name == "mcp-session-id" ? " with a session" : "\n" + name.str() + ": " + value.str();
        return text;
    };
    for (const std::string& body : {std::string("x"), std::string("[]"), kInitialize, kPing, rpcMessage("oops", "{}"),
                                    rpcMessage("notifications/initialized", "{}").erase(16, 7), toolCall("oops", "{}"),
                                    bridgeCall("oops"), std::string(R"({"id":7})"), std::string("{}")})
        EXPECT_EQ(answerOf(body, true), answerOf(body, false));
    for (const bool isLarge : {true, false}) {
        answerOf(kPing, isLarge);
        EXPECT_EQ(isOnLoop, !isLarge);
    }
}

TEST_F(McpDispatcherTest, RoomIsMadeByUnusedSessionsAndThenByIdleOnes) {
    std::vector<std::string> sessions;
    for (std::size_t i = 0; i < McpSessionTable::kMaxSessions; ++i)
        sessions.push_back(newSession());
    const auto use = [&](std::size_t index) { return post(kPing, sessions[index]).status; };
    EXPECT_EQ(use(0), 200);
    const std::string tooMany = error(-32000, "Too many sessions");
    nowNs_ += McpSessionTable::kUnusedNs - 1;
    EXPECT_EQ(bodyOf(post(kInitialize)), tooMany);
    nowNs_ += 1;
    EXPECT_NE(newSession(), "absent");
    EXPECT_EQ(use(1), 404) << "the oldest one without a second request";
    for (std::size_t i = 2; i < McpSessionTable::kMaxSessions; ++i)
        ASSERT_EQ(use(i), 200);
    nowNs_ += McpSessionTable::kUnusedNs;
    EXPECT_NE(newSession(), "absent"); // for the one made above
    nowNs_ += McpSessionTable::kIdleNs - 2 * McpSessionTable::kUnusedNs - 1;
    EXPECT_EQ(use(2), 200);
    nowNs_ += 1;
    EXPECT_NE(newSession(), "absent"); // for the one made above
    EXPECT_NE(newSession(), "absent");
    EXPECT_EQ(use(0), 404) << "idle for an hour";
    EXPECT_EQ(bodyOf(post(kInitialize)), tooMany) << "the others are in use, or too new";
}

TEST_F(McpDispatcherTest, ToolsListNamesTheToolsAndWhatTheyRequire) {
    const std::string list = bodyOf(post(rpcMessage("tools/list", "{}"), newSession()));
    for (const char* part : {R"("inputSchema": {"properties": {},"type": "object"},"name": "bridge.list_services")",
                             R"("required": ["serviceId"],"type": "object"},"name": "bridge.get_service")",
                             R"("required": ["serviceId","request"],"type": "object"},"name": "bridge.rpc")"})
        EXPECT_TRUE(holds(list, part)) << list;
}

} // namespace
