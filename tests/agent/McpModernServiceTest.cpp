// Services that speak revision 2026-07-28 of the protocol: what is mirrored in headers, and who is spoken to in it.

#include "agent/AgentFixture.h"
#include "agent/McpToolHeaders.h"
#include "agent/NotingService.h"
#include "core/types/ZnJsonDocument.h"

namespace {

constexpr int kMany = 1000;
using Lines = std::deque<std::string>;

class McpModernServiceTest : public AgentFixture {
protected:
    void SetUp() override {
        AgentFixture::SetUp();
        agent_.setTools({true, true}); // without interoperability: the service has it all the same
        agent_.setProgress(true);
        use("2026-07-28");
        session_ = newSession();
    }
    void use(const std::string& protocol, int timeoutMs = 2000) {
        setServices(R"({"services":[{"id":"s","protocol":")" + protocol + R"(","timeoutMs":)" +
                    std::to_string(timeoutMs) + R"(,"url":")" + service_.url() + "\"}]}");
    }
    void begin(const std::string& tool, const std::string& arguments, std::string* answer) {
        ZnTask task([this, text = toolCall(tool, R"({"serviceId":"s",)" + arguments + "}"), answer] {
            *answer = bodyOf(post(text, session_));
        });
        ASSERT_TRUE(application_.post(task, {.whenFull = ZnPostOptions::WhenFull::Wait}));
    }
    std::string answerTo(const std::string& tool, const std::string& arguments) {
        const auto answer = std::make_shared<std::string>(); // the call may last longer in a test that fails
        begin(tool, arguments, answer.get());
        EXPECT_TRUE(runUntil([&] { return !answer->empty(); }));
        return *answer;
    }
    std::string rpc(const std::string& request, const std::string& more = {}) {
        return answerTo("bridge_rpc", R"("request":{"jsonrpc":"2.0","id":9,)" + request + "}" + more);
    }
    std::string callTool(const std::string& more = {}) {
        return answerTo("bridge_call_tool", R"("name":"t","arguments":{"region":"\u00fc","n":5})" + more);
    }
    /// Answers the next request of that method; "ID" in the text is its id.
    void answerNext(const std::string& method, int status, const std::string& text) {
        service_.answerNext(method, [=](ZnHttpContext& context, const std::string& body) {
            const std::size_t at = body.find("\"id\": ") + 6;
            ZnString whole(text);
            whole.replace("ID", body.substr(at, body.find(',', at) - at));
            context.send(ZnByteArray(whole), "application/json", status);
        });
    }
    Lines takeSeen() { return std::exchange(service_.seen, {}); }

    NotingService service_;
    std::string session_;
};

const std::string kVersion = "io.modelcontextprotocol/protocolVersion";
const std::string kMeta = R"("io.modelcontextprotocol/clientCapabilities": {},"io.modelcontextprotocol/clientInfo": )";
const std::string kModernCall = "tools/call  2026-07-28";
const Lines kLegacyCall = {"initialize  ", "notifications/initialized u1 2025-06-18", "tools/call u1 2025-06-18"};
const std::string kRefusal = R"({"jsonrpc":"2.0","id":ID,"error":{"code":-32020,"message":"headers"}})";

std::string tools(const std::string& properties) {
    return R"({"jsonrpc":"2.0","id":ID,"result":{"tools":[{"name":"t","inputSchema":{"properties":)" + properties +
           "}}]}}";
}

TEST_F(McpModernServiceTest, HeadersSayWhatTheBodySays) {
    const std::string kUsual = "protocol-version: 2026-07-28\n";
    const auto named = [&](const std::string& method, const std::string& name) {
        return "method: " + method + "\nname: " + name + "\n" + kUsual;
    };
    const struct {
        std::string request, more, headers, body; // "": the request has all that _meta must say
    } kRows[] = {
        {R"("method":"tools/call","params":{"name":"t"})", R"(,"sessionId":"x")", named("tools/call", "t"), ""},
        {R"("method":"tools/call","params":{"name":" pad"})", "", named("tools/call", "=?base64?IHBhZA==?="), ""},
        {R"("method":"prompts/get","params":{"name":""})", "",
         named("prompts/get", "=?base64?"
                              "?="),
         ""},
        {R"("method":"resources/read","params":{"uri":"a\r\nX: \u0000\u00fc"})", "",
         named("resources/read", "=?base64?YQ0KWDogAMO8?="), ""},
        {R"("method":"tasks/get","params":{"taskId":"=?base64?eA==?="})", "",
         named("tasks/get", "=?base64?PT9iYXNlNjQ/ZUE9PT"
                            "89?="),
         ""},
        {R"("method":"tools/call","params":{"name":"a b\t~"})", "", named("tools/call", "a b\t~"), ""},
        {R"("method":"a\nb")", "", "method: =?base64?YQpi?=\n" + kUsual, ""},
        {R"("method":"tools/call","params":{"name":5,"_meta":{"progressToken":1.50}})", "",
         "method: tools/call\n" + kUsual, R"("progressToken": 1.50},"name": 5}})"},
        {R"("method":"x","params":{"_meta":5})", "", "method: x\n" + kUsual, R"("params": {"_meta": 5}})"},
        {R"("method":"x","params":[])", "", "method: x\n" + kUsual, R"("params": []})"},
        {R"("method":"x","params":{"_meta":{")" + kVersion + R"(":"2027-01-01"}})",
         R"(,"protocolVersion":"2027-01-01")", "method: x\nprotocol-version: 2027-01-01\n",
         R"({"_meta": {")" + kVersion + R"(": "2027-01-01"}}})"},
        {R"("method":"initialize","params":{})", R"(,"protocolVersion":"2025-06-18","sessionId":"x")",
         "protocol-version: 2025-06-18\nsession-id: x\n", R"("params": {}})"},
        {R"("result":{})", "", kUsual, R"({"id": 9,"jsonrpc": "2.0","result": {}})"},
        {R"("method":"x")", R"(,"headerParams":{"Region":"\u00fc","b":true,"n":-7})",
         "method: x\nparam-b: true\nparam-n: -7\nparam-region: =?base64?w7w=?=\n" + kUsual, ""},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.request);
        const std::string answer = rpc(row.request, row.more);
        EXPECT_TRUE(holds(answer, R"("statusCode": 200)")) << answer;
        EXPECT_EQ(service_.lastMirrors, row.headers);
        EXPECT_TRUE(holds(service_.lastBody, row.body.empty() ? kMeta : row.body)) << service_.lastBody;
        takeSeen();
    }
}

TEST_F(McpModernServiceTest, WhatCannotStandInAHeaderIsRefusedBeforeAnythingIsSent) {
    const std::string method = R"("name":"t","request":{"method":"tools/call","params":{"name":"t"}})";
    const std::string large(102400, 'n');
    std::string many;
    for (int i = 0; i < 33; ++i)
        many += (i == 0 ? "\"h" : ",\"h") + std::to_string(i) + "\":1";
    const std::string kParams = "Field 'headerParams' ";
    const struct {
        std::string tool, arguments, refusal;
    } kRows[] = {
        {"rpc", method + R"(,"protocolVersion":"2025-11-25")", "Field 'protocolVersion' differs from the version"},
        {"rpc", R"("request":{"method":"x","params":{"_meta":{")" + kVersion + R"(":"a\r\nb: c"}}})",
         "is not a valid header value"},
        {"rpc", R"("request":{"method":")" + large + "\"}", "is too long"},
        {"call_tool", R"("name":")" + large + "\"", "is too long"},
        {"call_tool", method + R"(,"headerParams":[])", kParams + "must be a JSON object"},
        {"call_tool", method + R"(,"headerParams":{)" + many + "}", kParams + "has too many members"},
        {"call_tool", method + R"(,"headerParams":{"a:b":1})", kParams + "has a name that cannot stand"},
        {"call_tool", method + R"(,"headerParams":{"a":1.5})", kParams + "must hold texts"},
        {"rpc", method + R"(,"headerParams":{"a":9007199254740992})", kParams + "must hold texts"},
        {"rpc", method + R"(,"headerParams":{"a":")" + large + "\"}", kParams + "has a value that is too long"},
        {"rpc", method + R"(,"headerParams":{"a":1,"A":2})", kParams + "names a header twice"},
        {"call_tool", method + R"(,"inputResponses":[])", "Field 'inputResponses' must be a JSON object"},
        {"call_tool", method + R"(,"requestState":5)", "Field 'requestState' must be a string"},
    };
    for (const auto& row : kRows) {
        const std::string answer = answerTo("bridge_" + row.tool, row.arguments);
        EXPECT_TRUE(holds(answer, row.refusal) && holds(answer, R"("statusCode": 400)")) << row.refusal << answer;
    }
    EXPECT_EQ(takeSeen(), Lines());
}

TEST_F(McpModernServiceTest, ACallThatAsksForInputIsToldAndContinued) {
    answerNext("tools/call", 200,
               R"({"jsonrpc":"2.0","id":ID,"result":{"resultType":"input_required","requestState":"s 1.50"}})");
    const std::string asked = callTool();
    EXPECT_TRUE(holds(asked, R"("text": "{\"requestState\": \"s 1.50\",\"resultType\": \"input_required\"}")"))
        << asked;
    EXPECT_TRUE(holds(asked, R"("structuredContent": {"requestState": "s 1.50","resultType": "input_required"}}})"));
    EXPECT_FALSE(holds(asked, "isError"));
    callTool(R"(,"inputResponses":{"k":{"action":"accept"}},"requestState":"s 1.50")");
    EXPECT_TRUE(holds(service_.lastBody,
                      R"("inputResponses": {"k": {"action": "accept"}},"name": "t","requestState": "s 1.50"})"));
    EXPECT_EQ(takeSeen(), (Lines{kModernCall, kModernCall})) << "no handshake, no session";
}

TEST_F(McpModernServiceTest, ARefusalForHeadersIsFollowedByOneLookAtTheTools) {
    const std::string list = tools(R"({"region":{"type":"string","x-mcp-header":"R"}})");
    const std::string kMirrored = "param-r: =?base64?w7w=?=\n";
    answerNext("tools/call", 400, kRefusal);
    answerNext("tools/list", 200, list);
    EXPECT_TRUE(holds(callTool(), R"("n": 1.50)"));
    EXPECT_EQ(takeSeen(), (Lines{kModernCall, "tools/list  2026-07-28", kModernCall}));
    EXPECT_TRUE(holds(service_.lastMirrors, kMirrored));
    rpc(R"("method":"tools/call","params":{"name":"t","arguments":{"region":null}})");
    EXPECT_FALSE(holds(service_.lastMirrors, "param"));
    callTool(R"(,"headerParams":{"r":"given"})");
    EXPECT_TRUE(holds(service_.lastMirrors, "param-r: given\n"));
    takeSeen();

    answerNext("tools/call", 400, kRefusal); // and the list says what it said before
    answerNext("tools/list", 200, list);
    EXPECT_TRUE(holds(callTool(), R"("code": -32020)"));
    EXPECT_EQ(takeSeen().size(), 2U);
    answerNext("tools/call", 400, kRefusal);
    answerNext("tools/list", 500, "");
    EXPECT_TRUE(holds(callTool(), R"("code": -32020)"));
    answerNext("tools/call", 400, R"({"jsonrpc":"2.0","id":ID,"error":{"code":-32602,"message":"m"}})");
    EXPECT_TRUE(holds(callTool(), R"("code": -32602)"));
    takeSeen();

    answerNext("tools/list", 200, tools("{}")); // a list that passes by
    rpc(R"("method":"tools/list")");
    callTool();
    EXPECT_FALSE(holds(service_.lastMirrors, "param"));
}

TEST(McpToolHeaders, OnlySchemasThatKeepTheRulesAreMirrored) {
    const std::string given = R"({"a":"x","b":{"c":true},"n":1e3,"d":1.5,"o":{}})";
    const struct {
        std::string properties, headers; // "-": the tool mirrors nothing
    } kRows[] = {
        {R"({"a":{"type":"string","x-mcp-header":"A"},"n":{"type":"integer","x-mcp-header":"N"}})", "A=x N=1000 "},
        {R"({"b":{"properties":{"c":{"type":"boolean","x-mcp-header":"C"}}}})", "C=true "},
        {R"({"d":{"type":"integer","x-mcp-header":"D"},"o":{"type":"string","x-mcp-header":"O"}})", ""},
        {R"({"a":{"type":"number","x-mcp-header":"A"}})", "-"},
        {R"({"a":{"type":"string","x-mcp-header":"A"},"b":{"type":"string","x-mcp-header":"a"}})", "-"},
        {R"({"a":{"type":"string","x-mcp-header":"a b"}})", "-"},
        {R"({"a":{"type":"string","x-mcp-header":""}})", "-"},
        {R"({"a":{"type":"string","x-mcp-header":5}})", "-"},
        {R"({"o":{"items":{"properties":{"a":{"type":"string","x-mcp-header":"A"}}}}})", "-"},
    };
    ZnString error;
    const ZnJsonDocument arguments = ZnJsonDocument::fromJson(given, &error, JsonReading::Exact);
    for (const auto& row : kRows) {
        const std::string list = R"([{"name":"t","inputSchema":{"properties":)" + row.properties + "}}]";
        const ZnJsonDocument document = ZnJsonDocument::fromJson(list, &error, JsonReading::Exact);
        const McpToolHeaders::Ref headers = McpToolHeaders::of(*document.root().array()).value("t");
        std::string text = headers ? "" : "-";
        const auto mirrored =
            headers ? headers->headersFor(*arguments.root().object(), {}) : std::optional(McpHeaderList());
        for (const auto& [name, value] : *mirrored)
            text += name.str().substr(10) + "=" + value.str() + " ";
        EXPECT_EQ(text, row.headers) << row.properties;
    }
}

TEST_F(McpModernServiceTest, AServiceOfUnknownEraIsAskedOnceAndItsVerdictKept) {
    const auto answer = [](const std::string& text) { return R"({"jsonrpc":"2.0","id":ID,)" + text + "}"; };
    const auto error = [](int code, const std::string& data = {}) {
        return R"({"jsonrpc":"2.0","id":null,"error":{"code":)" + std::to_string(code) + R"(,"message":"m")" + data +
               "}}";
    };
    const auto versions = [](const std::string& list) { return R"("result":{"supportedVersions":[)" + list + "]}"; };
    enum Era { Modern, Legacy, Unknown };
    const struct {
        int status;
        std::string text;
        Era era;
    } kRows[] = {
        {200, answer(versions(R"("2027-01-01","2026-07-28")")), Modern},
        {200, answer(versions(R"("2025-11-25")")), Legacy},
        {200, answer(versions(R"("2027-01-01")")), Unknown},
        {200, answer(R"("result":[1])"), Legacy},
        {200, answer(R"("error":{"code":-32601,"message":"m"})"), Legacy},
        {200, error(-32601), Unknown}, // not the id of the question
        {200, "<html>", Unknown},
        {202, "", Unknown},
        {400, error(-32000), Legacy},
        {400, error(-32022, R"(,"data":{"supported":["2025-06-18"]})"), Legacy},
        {400, error(-32022, R"(,"data":{"supported":["2027-01-01"]})"), Unknown},
        {404, "", Legacy},
        {429, "", Legacy},
        {410, "", Unknown},
        {401, error(-32601), Unknown},
        {403, "", Unknown},
        {503, error(-32601), Unknown},
    };
    const std::string kAsked = "server/discover  2026-07-28";
    for (const auto& row : kRows) {
        SCOPED_TRACE(std::to_string(row.status) + row.text);
        service_.sessionCount = 0;
        session_ = newSession();
        use("auto");
        answerNext("server/discover", row.status, row.text);
        const std::string first = callTool();
        Lines expected = {kAsked};
        if (row.era == Legacy)
            expected.insert(expected.end(), kLegacyCall.begin(), kLegacyCall.end());
        else if (row.era == Modern)
            expected.push_back(kModernCall);
        EXPECT_EQ(takeSeen(), expected);
        EXPECT_EQ(holds(first, R"("isError": true)"), row.era == Unknown) << first;
        callTool();
        EXPECT_EQ(takeSeen().front() == kAsked, row.era == Unknown || row.status == 429) << "what is remembered";
    }
    use("auto");
    const std::string again = error(-32022, R"(,"data":{"supported":["2026-07-28"]})");
    answerNext("server/discover", 400, again);
    answerNext("server/discover", 200, answer(versions(R"("2026-07-28")")));
    callTool();
    EXPECT_EQ(takeSeen(), (Lines{kAsked, kAsked, kModernCall}));
}

TEST_F(McpModernServiceTest, AThousandCallsWaitForOneQuestionAsFarAsThereIsRoom) {
    use("auto", 20000);
    for (const bool isHeld : {true, false}) {
        SCOPED_TRACE(isHeld);
        if (isHeld)
            service_.holdNext("server/discover"); // and answers with 500
        std::vector<std::string> answers(kMany);
        for (std::string& answer : answers)
            begin("bridge_rpc", R"("request":{"id":9,"method":"x"})", &answer);
        const auto countOf = [&](const std::string& part) {
            return std::count_if(answers.begin(), answers.end(), [&](const auto& text) { return holds(text, part); });
        };
        if (isHeld) {
            EXPECT_TRUE(runUntil([&] { return service_.isHolding && countOf("Too many calls") == kMany - 201; }));
            service_.release();
        }
        EXPECT_TRUE(runUntil([&] { return countOf("result") == kMany; }));
        const Lines seen = takeSeen();
        EXPECT_EQ(std::count(seen.begin(), seen.end(), "server/discover  2026-07-28"), 1);
        EXPECT_EQ(countOf("answered with status 500"), isHeld ? 201 : 0);
    }
}

TEST_F(McpModernServiceTest, AClientThatLeavesEndsTheConnectionAndNothingElse) {
    service_.holdNext("tools/call");
    McpCaller caller;
    std::string answer;
    ASSERT_TRUE(application_.postEvent([&] {
        McpMessage message(ZnByteArray(toolCall("bridge_call_tool", R"({"serviceId":"s","name":"t"})")), caller);
        message.sessionId = session_;
        answer = std::to_string(Peer::dispatcher(agent_).answer(std::move(message)).status);
    }));
    EXPECT_TRUE(runUntil([this] { return service_.isHolding; }));
    caller.leave();
    EXPECT_TRUE(runUntil([&] { return !answer.empty(); }));
    service_.release();
    EXPECT_TRUE(runUntil([this] { return !service_.isHolding; }));
    settle();
    EXPECT_EQ(takeSeen(), Lines{kModernCall}) << "no notifications/cancelled";
}

TEST_F(McpModernServiceTest, MembersOfTheAllowlist) {
    const std::string list = bodyOf(post(rpcMessage("tools/list", "{}"), session_));
    EXPECT_TRUE(holds(list, "headerParams") && holds(list, "inputResponses") && holds(list, "requestState"));
    use("2025-11-25");
    EXPECT_EQ(agent_.remarks().size(), 1U);
    EXPECT_FALSE(holds(bodyOf(post(rpcMessage("tools/list", "{}"), session_)), "headerParams"));
    setServices(R"({"services":[{"id":"s","protocol":"auto","interop":false,"url":"http://127.0.0.1:1/"}]})");
    ASSERT_EQ(agent_.remarks().size(), 1U);
    EXPECT_TRUE(holds(agent_.remarks().front().str(), "counts as true"));
}

} // namespace
