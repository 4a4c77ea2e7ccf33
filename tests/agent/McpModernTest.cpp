// Clients that open no session, beside those that do.

#include "agent/AgentFixture.h"
#include "agent/McpJson.h"
#include "agent/NotingService.h"

#include <algorithm>

namespace {

const std::string kVersionKey = R"("io.modelcontextprotocol/protocolVersion":)";
const std::string kCapabilities = R"("io.modelcontextprotocol/clientCapabilities":{})";
const std::string kMeta = kVersionKey + R"("2026-07-28",)" + kCapabilities;
const std::string kServer = R"("io.modelcontextprotocol/serverInfo": {"name": "brelt-mcp-bridge-agent","title": )"
                            R"("Brelt MCP Bridge Agent","version": "0.1.0"})";

/// A request with such a "_meta"; `params` are its other params.
std::string modern(const std::string& method, const std::string& params = "", const std::string& meta = kMeta) {
    return rpcMessage(method, "{" + params + (params.empty() ? "" : ",") + R"("_meta":{)" + meta + "}}");
}
std::string toolParams(const std::string& name, const std::string& arguments = "{}") {
    return R"("name":")" + name + R"(","arguments":)" + arguments;
}

class McpModernTest : public AgentFixture {
protected:
    void SetUp() override {
        AgentFixture::SetUp();
        agent_.setInterop(true);
        agent_.setModern(true);
        agent_.setTools({true, true});
        setServices(R"({"services":[{"id":"s","timeoutMs":2000,"url":")" + service_.url() + "\"}]})");
    }
    static Headers mirror(const std::string& method, const std::string& name = {}) {
        Headers headers = {{"content-type", "Application/JSON; charset=utf-8"},
                           {"mcp-protocol-version", "2026-07-28"},
                           {"mcp-method", method},
                           {"mcp-session-id", "of the other era"},
                           {"last-event-id", "7"}};
        if (!name.empty())
            headers.push_back({"mcp-name", name});
        return headers;
    }
    /// Without the header, or with another value when there is one.
    static Headers with(Headers headers, const std::string& name, const char* value = nullptr) {
        const auto place =
            std::find_if(headers.begin(), headers.end(), [&](auto& entry) { return entry.first == name; });
        if (value == nullptr)
            headers.erase(place);
        else
            place->second = value;
        return headers;
    }
    std::string answerTo(const Headers& headers, const std::string& body) {
        std::string answer;
        EXPECT_TRUE(application_.postEvent([&] {
            const ZnHttpResponse response = call("POST", "/mcp", headers, body);
            answer = std::to_string(response.status) + " " + bodyOf(response);
        }));
        EXPECT_TRUE(runUntil([&] { return !answer.empty(); }));
        return answer;
    }
    std::string callService(const std::string& tool, const std::string& arguments) {
        return answerTo(mirror("tools/call", tool), modern("tools/call", toolParams(tool, arguments)));
    }

    NotingService service_;
};

TEST_F(McpModernTest, EachMessageIsJudgedByItsHeadersAndByWhatItSays) {
    const Headers list = mirror("tools/list");
    const std::string listBody = modern("tools/list");
    const std::string differing = R"({"jsonrpc":"2.0","method":"x","params":{"_meta":{)" + kVersionKey + "\"1\"}}}";
    const auto named = [](const std::string& header, const std::string& name, const std::string& method = "tools/call",
                          const std::string& member = "name") {
        return std::pair(mirror(method, header), modern(method, "\"" + member + "\":" + name));
    };
    const auto ofVersion = [](const std::string& version) {
        return modern("tools/list", "", kVersionKey + version + "," + kCapabilities);
    };
    const auto doubled = [&](const char* name) {
        Headers headers = list;
        headers.push_back({name, std::string(name) == "mcp-method" ? "tools/list" : "2026-07-28"});
        return headers;
    };
    const auto replaced = [&](const std::string& part, const std::string& other) {
        std::string body = listBody;
        return body.replace(body.find(part), part.size(), other);
    };
    struct Row {
        const char* name;
        std::pair<Headers, std::string> message;
        std::string answer; // its beginning
    };
    const std::string mismatch = R"(400 {"error": {"code": -32020,)";
    const std::string params = R"(400 {"error": {"code": -32602,)";
    const std::string invalid = R"(400 {"error": {"code": -32600,)";
    const std::string noMethod = R"(404 {"error": {"code": -32601,"message": "Method not found"},"id": 1,)";
    const std::string unknownTool = R"(200 {"error": {"code": -32602,"message": "Unknown tool"},"id": 1,)";
    const Row rows[] = {
        {"no version header", {with(list, "mcp-protocol-version"), listBody}, mismatch},
        {"another version header", {with(list, "mcp-protocol-version", "2025-06-18"), listBody}, mismatch},
        {"version header twice", {doubled("mcp-protocol-version"), listBody}, mismatch},
        {"no method header", {with(list, "mcp-method"), listBody}, mismatch},
        {"another method header", {with(list, "mcp-method", "Tools/List"), listBody}, mismatch},
        {"method header twice", {doubled("mcp-method"), listBody}, mismatch},
        {"no name header", named("", "\"x\""), mismatch},
        {"no name header of a uri", named("", "\"x\"", "resources/read", "uri"), mismatch},
        {"another name header", named("y", "\"x\""), mismatch},
        {"a name header that no text is", named("\xC3\xBC", "\"\xC3\xBC\""), mismatch},
        {"unfinished Base64", named("=?base64?w7w?=", "\"\xC3\xBC\""), mismatch},
        {"Base64 with other bits at the end", named("=?base64?w7x=?=", "\"\xC3\xBC\""), mismatch},
        {"a marker in capitals", named("=?BASE64?w7w=?=", "\"\xC3\xBC\""), mismatch},
        {"Base64", named("=?base64?w7w=?=", "\"\xC3\xBC\""), unknownTool},
        {"empty Base64", named("=?base64?\?=", "\"\""),
         R"(200 {"error": {"code": -32602,"message": "tools/call requires)"},
        {"half a marker", named("=?base64?=", "\"=?base64?=\""), unknownTool},
        {"a name that is no text", named("5", "5"), unknownTool},
        {"initialize under the header", {mirror("initialize"), kInitialize}, mismatch},
        {"initialize of this era", {mirror("initialize"), modern("initialize")}, noMethod},
        {"ping", {mirror("ping"), modern("ping")}, noMethod},
        {"a subscription", {mirror("subscriptions/listen"), modern("subscriptions/listen")}, noMethod},
        {"no _meta under the header", {list, rpcMessage("tools/list", "{}")}, params},
        {"no params under the header", {mirror("ping"), kPing}, params},
        {"a version that is no text", {list, ofVersion("5")}, params},
        {"no capabilities", {list, modern("tools/list", "", kVersionKey + "\"2026-07-28\"")}, params},
        {"a client that is no object",
         {list, modern("tools/list", "", kMeta + R"(,"io.modelcontextprotocol/clientInfo":"x")")},
         params},
        {"another version in both",
         {with(list, "mcp-protocol-version", "2025-11-25"), ofVersion("\"2025-11-25\"")},
         R"(400 {"error": {"code": -32022,"data": {"requested": "2025-11-25","supported": ["2026-07-28"]},)"},
        {"a batch", {list, "[" + listBody + "]"}, invalid},
        {"half a message", {list, "{"}, R"(400 {"error": {"code": -32700,)"},
        {"a number for a version", {list, replaced("\"2.0\"", "2.0")}, invalid},
        {"id null", {list, replaced("\"id\":1", "\"id\":null")}, invalid},
        {"id 1.5", {list, replaced("\"id\":1", "\"id\":1.5")}, invalid},
        {"no method", {list, R"({"jsonrpc":"2.0","id":1,"result":{}})"}, invalid},
        {"params in a list", {list, rpcMessage("tools/list", "[]")}, invalid},
        {"another content type", {with(list, "content-type", "text/plain"), listBody}, "415 {"},
        {"a notification", {mirror("x"), R"({"jsonrpc":"2.0","method":"x"})"}, "202 "},
        {"a notification without headers", {{{"content-type", "application/json"}}, differing}, "202 "},
        {"a notification of another version", {mirror("x"), differing}, mismatch},
        {"a notification of another method", {list, R"({"jsonrpc":"2.0","method":"x"})"}, mismatch},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string answer = answerTo(row.message.first, row.message.second);
        EXPECT_EQ(answer.substr(0, row.answer.size()), row.answer) << answer;
    }
    for (const char* id : {"\"1\"", "0", "-7", "12345678901234567890", R"("a\"b,\"jsonrpc\": \"2.0\",\"result\": ")"})
        EXPECT_TRUE(holds(answerTo(list, replaced("\"id\":1", "\"id\":" + std::string(id))),
                          R"(200 {"id": )" + std::string(id) + R"(,"jsonrpc": "2.0","result": {"_meta": {)"));
    EXPECT_EQ(Peer::dispatcher(agent_).sessionCount(), 0U);
    EXPECT_EQ(call("DELETE", "/mcp", list).status, 405);
}

TEST_F(McpModernTest, ResultsOfTheAgentSayThatTheyAreWhole) {
    const std::string form = R"(200 {"id": 1,"jsonrpc": "2.0","result": {"_meta": {)" + kServer +
                             R"(},"resultType": )"
                             R"("complete",)";
    const std::string discovered = answerTo(mirror("server/discover"), modern("server/discover"));
    EXPECT_EQ(discovered.substr(0, form.size()), form);
    for (const char* part : {R"("cacheScope": "private","ttlMs": 0,"capabilities": {"tools": {"listChanged": false}})",
                             R"("supportedVersions": ["2026-07-28"]}})"})
        EXPECT_TRUE(holds(discovered, part)) << discovered;
    EXPECT_TRUE(holds(answerTo(mirror("tools/list"), modern("tools/list")),
                      form + R"("cacheScope": "private","ttlMs": 0,"tools": [)"));
    for (const std::string tool : {"bridge_list_services", "bridge.get_service", "bridge_rpc"}) // the last two refuse
        EXPECT_TRUE(holds(callService(tool, "{}"), form + R"("content": [)"));
    EXPECT_TRUE(holds(callService("bridge_rpc", R"({"serviceId":"s","request":{"id":1,"method":"ping"}})"),
                      form + R"("content": [)"));
    EXPECT_TRUE(holds(callService("bridge_list_tools", R"({"serviceId":"s"})"), form + R"("content": [)"));
}

TEST_F(McpModernTest, ResultsOfAServiceGetNoMoreThanTheyLack) {
    const std::string large(std::size_t(300) << 10, 'x');
    const struct {
        std::string result, answer;
    } kRows[] = {
        {"{}", R"({"resultType": "complete"})"},
        {R"({"content": [{"resultType": 1}],"z": "\"resultType\": \\"})",
         R"({"resultType": "complete","content": [{"resultType": 1}],"z": "\"resultType\": \\"})"},
        {R"({"requestState": "resultType","resultType": "input_required"})", ""},
        {R"({"_meta": {"a": "}"},"content": [],"resultType": "complete"})", ""},
        {R"({"a": ")" + large + R"("})", R"({"resultType": "complete","a": ")" + large + R"("})"},
    };
    for (const auto& row : kRows) {
        service_.answerNext("tools/call", [&](ZnHttpContext& context, const std::string& body) {
            const std::size_t at = body.find("\"id\": ") + 6;
            context.send(ZnByteArray(R"({"jsonrpc":"2.0","id":)" + body.substr(at, body.find(',', at) - at) +
                                     ",\"result\":" + row.result + "}"),
                         "application/json");
        });
        EXPECT_EQ(callService("bridge_call_tool", R"({"serviceId":"s","name":"t"})"),
                  R"(200 {"id": 1,"jsonrpc": "2.0","result": )" + (row.answer.empty() ? row.result : row.answer) + "}");
    }
}

TEST_F(McpModernTest, ASessionWithAServiceLastsAsLongAsTheCall) {
    for (int call = 1; call <= 2; ++call) {
        service_.seen.clear();
        callService("bridge_call_tool", R"({"serviceId":"s","name":"t"})");
        const std::string session = " u" + std::to_string(call) + " 2025-06-18";
        EXPECT_TRUE(runUntil([&] { return service_.seen.size() == 4; }));
        EXPECT_EQ(service_.seen, (std::deque<std::string>{"initialize  ", "notifications/initialized" + session,
                                                          "tools/call" + session, "DELETE" + session}));
    }
    // A front with one client keeps it, and that client alone can cancel the call.
    service_.holdNext("tools/call");
    bool isAnswered = false;
    const auto send = [&](const std::string& body) {
        ASSERT_TRUE(application_.postEvent([&, body] {
            McpCaller caller;
            McpMessage message(ZnByteArray(std::string_view(body)), caller);
            message.owner = "\nfront";
            message.mayCancel = true;
            EXPECT_EQ(Peer::dispatcher(agent_).answer(std::move(message)).status, 202);
            isAnswered = isAnswered || holds(body, "tools/call");
        }));
    };
    agent_.setProgress(true);
    send(modern("tools/call", toolParams("bridge_call_tool", R"({"serviceId":"s","name":"t"})")));
    EXPECT_TRUE(runUntil([this] { return service_.isHolding; }));
    const std::string cancel = R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":1)";
    answerTo(mirror("notifications/cancelled"), cancel + R"(,"_meta":{)" + kMeta + "}}}");
    answerTo({}, cancel + "}}");
    settle();
    EXPECT_FALSE(isAnswered);
    send(cancel + "}}");
    EXPECT_TRUE(runUntil([&] { return isAnswered; }));
    service_.release();
    EXPECT_TRUE(runUntil([this] { return !service_.isHolding; }));
    EXPECT_EQ(service_.sessionCount, 3);
    EXPECT_FALSE(holds(service_.seen.back(), "DELETE"));
}

TEST_F(McpModernTest, SessionsAgreeOnTheVersionThatTheirClientAsksFor) {
    const std::string newest = rpcMessage("initialize", R"({"protocolVersion":"2025-11-25"})");
    const ZnHttpResponse response = call("POST", "/mcp", {{"mcp-protocol-version", "2025-11-25"}}, newest);
    EXPECT_TRUE(holds(bodyOf(response), R"("protocolVersion": "2025-11-25")"));
    const std::string session = header(response, "mcp-session-id");
    const struct {
        std::string session, version;
        int status;
    } kRows[] = {{session, "2025-11-25", 200},
                 {session, "", 200},
                 {session, "2025-06-18", 400},
                 {newSession(), "2025-11-25", 400}};
    for (const auto& row : kRows) {
        const Headers headers = {{"mcp-session-id", row.session}, {"mcp-protocol-version", row.version}};
        EXPECT_EQ(call("POST", "/mcp", headers, kPing).status, row.status);
    }
    agent_.setModern(false);
    EXPECT_EQ(post(kPing, session).status, 400);
}

TEST_F(McpModernTest, ClientsWithSessionsSeeNoDifference) {
    std::string told[2];
    for (const bool isOn : {false, true}) {
        agent_.setModern(isOn);
        const std::string session = newSession();
        for (const char* version : {"", "2025-06-18", "2025-11-25", "2025-03-26", "2027-01-01"}) {
            for (const std::string& body :
                 {std::string("[]"), std::string("{"), kInitialize, kPing, rpcMessage("tools/list", "{}"),
                  rpcMessage("server/discover", "{}"), rpcMessage("a/b", "[]"), toolCall("oops", "{}"),
                  toolCall("bridge_list_services", "{}"), bridgeCall("oops"),
                  std::string(R"({"jsonrpc":"2.0","id":1})"),
                  rpcMessage("tools/list", R"({"_meta":{"progressToken":1}})"), std::string(R"({"jsonrpc":1,"id":1})"),
                  std::string(R"({"jsonrpc":"2.0","method":"notifications/initialized"})")}) {
                for (const std::string& id : {std::string(), session, std::string("unknown")}) {
                    ZnHttpResponse response = call(
                        "POST", "/mcp",
                        {{"mcp-session-id", id}, {"mcp-protocol-version", version}, {"content-type", "text/plain"}},
                        body);
                    response.headers.remove("mcp-session-id");
                    told[isOn] += response.head(true).str() + bodyOf(response) + "\n";
                }
            }
        }
        for (const char* method : {"GET", "DELETE", "OPTIONS"})
            told[isOn] += call(method, "/mcp", {{"mcp-session-id", session}}).head(true).str();
    }
    EXPECT_EQ(told[0], told[1]);
    EXPECT_GT(told[0].size(), 10000U);
}

} // namespace
