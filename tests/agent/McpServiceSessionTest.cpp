// Sessions that the agent keeps with services, and their tools as tools.

#include "agent/AgentFixture.h"
#include "agent/NotingService.h"

namespace {

class McpServiceSessionTest : public AgentFixture {
protected:
    using Lines = std::deque<std::string>;

    void SetUp() override {
        AgentFixture::SetUp();
        agent_.setInterop(true);
        agent_.setTools({true, true});
        setServices(R"({"services":[{"id":"s","session":"auto","timeoutMs":2000,"url":")" + service_.url() + "\"}]}");
        session_ = newSession();
    }
    void begin(const std::string& tool, const std::string& arguments, std::string* answer) {
        ASSERT_TRUE(application_.postEvent(
            [this, tool, arguments, answer] { *answer = bodyOf(post(toolCall(tool, arguments), session_)); }));
    }
    std::string use(const std::string& tool, const std::string& arguments) {
        std::string answer;
        begin(tool, arguments, &answer);
        EXPECT_TRUE(runUntil([&] { return !answer.empty(); }));
        return answer;
    }
    std::string rpc(const std::string& more = {}, const std::string& method = "ping") {
        return use("bridge_rpc",
                   R"({"serviceId":"s","request":{"jsonrpc":"2.0","id":9,"method":")" + method + "\"}" + more + "}");
    }
    std::string callTool(const std::string& name = "t") {
        return use("bridge_call_tool", R"({"serviceId":"s","name":")" + name + R"(","arguments":{"a":"1.50"}})");
    }
    static std::string result(const std::string& text) {
        return R"({"id": 1,"jsonrpc": "2.0","result": )" + text + "}";
    }
    Lines takeSeen() { return std::exchange(service_.seen, {}); }

    NotingService service_;
    std::string session_;
};

const std::deque<std::string> kHandshake = {"initialize  ", "notifications/initialized u1 2025-06-18"};

TEST_F(McpServiceSessionTest, OneHandshakeForAllCallsOfAClient) {
    std::string answers[3];
    for (std::string& answer : answers)
        begin("bridge_rpc", R"({"serviceId":"s","request":{"jsonrpc":"2.0","id":9,"method":"ping"}})", &answer);
    EXPECT_TRUE(runUntil([&] { return !answers[0].empty() && !answers[1].empty() && !answers[2].empty(); }));
    const std::string ping = "ping u1 2025-06-18";
    EXPECT_EQ(takeSeen(), (Lines{kHandshake[0], kHandshake[1], ping, ping, ping}));
    EXPECT_TRUE(holds(answers[2], R"("body": {"id": 9,"jsonrpc": "2.0","result": {"content")"));

    const std::string first = std::exchange(session_, newSession());
    rpc();
    EXPECT_EQ(takeSeen().back(), "ping u2 2025-06-18") << "another client has a session of its own";
    EXPECT_EQ(call("DELETE", "/mcp", {{"mcp-session-id", first}}).status, 204);
    EXPECT_TRUE(runUntil([&] { return takeSeen() == Lines{"DELETE u1 2025-06-18"}; }));
}

TEST_F(McpServiceSessionTest, WhatTheClientSaysItselfWins) {
    rpc(R"(,"sessionId":"mine")");
    rpc({}, "initialize");
    EXPECT_EQ(takeSeen(), (Lines{"ping mine ", "initialize  "}));
    rpc(R"(,"protocolVersion":"2025-03-26")");
    EXPECT_EQ(takeSeen().back(), "ping u2 2025-03-26");
}

TEST_F(McpServiceSessionTest, OnlyA404OpensANewSessionAndOnlyOnce) {
    const std::string unknown = R"({"jsonrpc":"2.0","id":null,"error":{"code":-32001,"message":"Session not found"}})";
    rpc();
    takeSeen();
    service_.answerNext("ping", 404, unknown);
    EXPECT_TRUE(holds(rpc(), R"("statusCode": 200)"));
    EXPECT_EQ(takeSeen(), (Lines{"ping u1 2025-06-18", "initialize  ", "notifications/initialized u2 2025-06-18",
                                 "ping u2 2025-06-18"}));
    for (int i = 0; i < 2; ++i)
        service_.answerNext("ping", 404, unknown);
    EXPECT_TRUE(holds(rpc(), R"("statusCode": 404)"));
    EXPECT_EQ(takeSeen().size(), 4U);
    for (const int status : {400, 500}) {
        service_.answerNext("ping", status, "{}");
        EXPECT_TRUE(holds(rpc(), R"("statusCode": )" + std::to_string(status)));
    }
    service_.keepsSessions = false;
    service_.answerNext("ping", 404, unknown);
    takeSeen();
    EXPECT_TRUE(holds(rpc(), R"("statusCode": 200)"));
    service_.answerNext("ping", 404, unknown);
    EXPECT_TRUE(holds(rpc(), R"("statusCode": 404)")) << "there is no session that it could mean";
}

TEST_F(McpServiceSessionTest, AHandshakeThatFailsIsToldAndTriedAgain) {
    const auto answer = [](const std::string& text) { return R"({"jsonrpc":"2.0","id":0,)" + text + "}"; };
    const struct {
        int status;
        std::string text, message;
    } kRows[] = {
        {401, "", "answered with status 401"},
        {200, "no JSON", "has refused the handshake"},
        {200, answer(R"("error":{"code":-32602,"message":"no"})"), "has refused the handshake"},
        {200, answer(R"("result":{"protocolVersion":"1999-01-01"})"), "speaks no version of the protocol"},
        {200, answer(R"("result":[])"), "has refused the handshake"},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.message + row.text);
        for (const bool isTool : {false, true}) {
            service_.answerNext("initialize", row.status, row.text);
            const std::string text = isTool ? callTool() : rpc();
            EXPECT_TRUE(holds(text, row.message)) << text;
            EXPECT_TRUE(holds(text, R"("isError": true)")) << text;
            EXPECT_EQ(takeSeen(), Lines{kHandshake[0]});
        }
    }
    EXPECT_TRUE(holds(rpc(), R"("statusCode": 200)"));
}

TEST_F(McpServiceSessionTest, ThoseWhoWaitForAHandshakeShareItsFailureButNotThatAClientHasLeft) {
    const std::string message = toolCall("bridge_rpc", R"({"serviceId":"s","request":{"id":9,"method":"ping"}})");
    Peer::dispatcher(agent_).setObserver(last_);
    for (const bool leaves : {false, true}) {
        service_.holdNext("initialize");
        McpCaller first;
        std::string firstAnswer;
        std::string secondAnswer;
        ASSERT_TRUE(application_.postEvent([&] {
            McpMessage toAnswer(ZnByteArray(message), first);
            toAnswer.sessionId = session_;
            firstAnswer = Peer::dispatcher(agent_).answer(std::move(toAnswer)).text.toZnString().str();
        }));
        ASSERT_TRUE(application_.postEvent([&] { secondAnswer = bodyOf(post(message, session_)); }));
        EXPECT_TRUE(runUntil([this] { return service_.isHolding; }));
        settle();
        if (leaves)
            first.leave();
        else
            service_.release();
        EXPECT_TRUE(runUntil([&] { return !firstAnswer.empty() && !secondAnswer.empty(); }));
        EXPECT_TRUE(holds(secondAnswer, leaves ? R"("statusCode": 200)" : "answered with status 500")) << secondAnswer;
        EXPECT_EQ(last_->call.status, leaves ? 200 : 500);
        EXPECT_EQ(takeSeen().size(), leaves ? 4U : 1U);
        service_.release();
        EXPECT_TRUE(runUntil([this] { return !service_.isHolding; }));
    }
}

TEST_F(McpServiceSessionTest, ResultsComeThroughUnchangedAndErrorsAsErrors) {
    EXPECT_EQ(callTool(), result(R"({"content": [{"text": "1.50","type": "text"}],"n": 1.50})"));
    EXPECT_EQ(takeSeen(), (Lines{kHandshake[0], kHandshake[1], "tools/call u1 2025-06-18"}));
    std::string sent;
    service_.answerNext("tools/call", [&](ZnHttpContext& context, const std::string& body) {
        sent = body;
        context.send(ZnByteArray(R"({"jsonrpc":"2.0","error":{"code":-32602,"message":"no \"x\"","data":[1]}})"),
                     "application/json", 400);
    });
    EXPECT_TRUE(holds(callTool("a\\u0022b"),
                      R"("structuredContent": {"code": -32602,"data": [1],"error": "no \"x\"","statusCode": 400})"));
    EXPECT_TRUE(holds(sent, R"("params": {"arguments": {"a": "1.50"},"name": "a\"b"})")) << sent;
    for (const char* text : {R"({"result":1})", "[]", "", R"({"result":)"}) {
        service_.answerNext("tools/call", 200, text);
        EXPECT_TRUE(holds(callTool(), R"({"error": "the service gave no result","statusCode": 200})"));
    }
    const struct {
        std::string tool, arguments, refusal;
    } kRefused[] = {
        {"bridge_call_tool", R"({"serviceId":"s"})", "Field 'name' is required"},
        {"bridge_call_tool", R"({"serviceId":"s","name":"t","arguments":[]})",
         "Field 'arguments' must be a JSON object"},
        {"bridge_call_tool", R"({"serviceId":"s","name":5})", "Field 'name' must be a string"},
        {"bridge_list_tools", R"({"serviceId":"x"})", "Service not found"},
    };
    takeSeen();
    for (const auto& row : kRefused)
        EXPECT_TRUE(holds(use(row.tool, row.arguments), row.refusal)) << row.refusal;
    EXPECT_EQ(takeSeen(), Lines());
}

TEST_F(McpServiceSessionTest, ListsAreReadToTheirEndOrRefused) {
    const auto page = [](const std::string& name, const std::string& cursor) {
        return R"({"jsonrpc":"2.0","id":0,"result":{"tools":[{"name":")" + name + "\"}]" +
               (cursor.empty() ? "" : R"(,"nextCursor":")" + cursor + "\"") + "}}";
    };
    const std::string list = R"({"serviceId":"s"})";
    std::string sent;
    service_.answerNext("tools/list", 200, page("a", "c 1"));
    service_.answerNext("tools/list", [&](ZnHttpContext& context, const std::string& body) {
        sent = body;
        context.send(ZnByteArray(page("b", "")), "application/json", 200);
    });
    EXPECT_TRUE(
        holds(use("bridge_list_tools", list), R"("structuredContent": {"tools": [{"name": "a"},{"name": "b"}]}})"));
    EXPECT_TRUE(holds(sent, R"("params": {"cursor": "c 1"})")) << sent;
    EXPECT_TRUE(holds(use("bridge_list_tools", list), "the service gave no list of tools"));
    for (int i = 0; i < 500; ++i)
        service_.answerNext("tools/list", 200, page("a", "again"));
    takeSeen();
    EXPECT_TRUE(holds(use("bridge_list_tools", list), "the list of the service's tools is too long"));
    EXPECT_EQ(takeSeen().size(), 200U);
}

} // namespace
