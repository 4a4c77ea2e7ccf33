#include "agent/AgentFixture.h"
#include "agent/NotingService.h"

namespace {

class McpServiceRulesTest : public AgentFixture {
protected:
    void SetUp() override {
        AgentFixture::SetUp();
        agent_.setInterop(true);
        agent_.setTools({true, true});
        session_ = newSession();
    }
    void setRules(const std::string& rules) {
        setServices(R"({"services":[{"id":"s","interop":true,"url":")" + service_.url() + "\"," + rules + "}]}");
    }
    std::string use(const std::string& tool, const std::string& arguments) {
        std::string answer;
        EXPECT_TRUE(application_.postEvent([&] { answer = bodyOf(post(toolCall(tool, arguments), session_)); }));
        EXPECT_TRUE(runUntil([&] { return !answer.empty(); }));
        return answer;
    }
    bool isRefused(const std::string& tool, const std::string& arguments) {
        service_.seen.clear();
        const bool isRefused =
            holds(use(tool, arguments), R"({"error": "Not allowed by the allowlist","statusCode": 403})");
        EXPECT_EQ(service_.seen.empty(), isRefused) << "refused before any network, or sent";
        return isRefused;
    }
    bool isRequestRefused(const std::string& request) {
        return isRefused("bridge_rpc", R"({"serviceId":"s","request":)" + request + "}");
    }
    static std::string callOf(const std::string& name) {
        return R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":")" + name + "\"}}";
    }

    NotingService service_;
    std::string session_;
};

TEST_F(McpServiceRulesTest, NamesAndWildcards) {
    const struct {
        const char* rules;
        const char* name;
        bool isAllowed;
    } kRows[] = {
        {R"("allowTools":["read","list_*"])", "read", true},
        {R"("allowTools":["read","list_*"])", "list_", true},
        {R"("allowTools":["read","list_*"])", "list_all", true},
        {R"("allowTools":["read","list_*"])", "READ", false},
        {R"("allowTools":["read","list_*"])", "reader", false},
        {R"("allowTools":["a*b*c"])", "a-b-b-c", true},
        {R"("allowTools":["a*b*c"])", "a-c-b", false},
        {R"("allowTools":[])", "read", false},
        {R"("allowTools":"*")", "read", false},
        {R"("denyTools":["delete*"])", "read", true},
        {R"("denyTools":["delete*"])", "delete_all", false},
        {R"("denyTools":["delete*"])", "Delete_all", false},
        {R"("denyTools":["delete"])", " delete", false},
        {R"("denyTools":["delete"])", "delete\\u0000", false},
        {R"("denyTools":["delete"])", "d\\u0065lete", false},
        {R"("denyTools":["delete"])", "deleted", true},
        {R"("denyTools":"delete")", "read", false},
        {R"("allowTools":["*"],"denyTools":["*_all"])", "delete_all", false},
        {R"("allowTools":["*"],"denyTools":["*_all"])", "delete_one", true},
        {R"("allowMethods":["tools/list"])", "read", false},
        {R"("allowMethods":["tools/*"])", "read", true},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(std::string(row.rules) + " " + row.name);
        setRules(row.rules);
        EXPECT_EQ(isRequestRefused(callOf(row.name)), !row.isAllowed);
        EXPECT_EQ(isRefused("bridge_call_tool", R"({"serviceId":"s","name":")" + std::string(row.name) + "\"}"),
                  !row.isAllowed);
    }
}

// What some reader might take for the call of a forbidden tool.
TEST_F(McpServiceRulesTest, UnusualSpellingsDoNotGetAround) {
    const struct {
        const char* rules;
        const char* request;
        bool isAllowed;
    } kRows[] = {
        {R"("denyTools":["x"])", R"({"method":"ping"})", true},
        {R"("denyTools":["x"])", R"({"id":1,"result":{}})", true},
        {R"("denyTools":["x"])", R"({"method":"tools/call","params":{"name":"x"}})", false},
        {R"("denyTools":["x"])", R"({"method":"tools\/c\u0061ll","params":{"name":"x"}})", false},
        {R"("denyTools":["x"])", R"({"method":"TOOLS/call","params":{"name":"x"}})", false},
        {R"("denyTools":["x"])", R"({"method":" tools/call","params":{"name":"x"}})", false},
        {R"("denyTools":["x"])", R"({"method":"tools/call\u0000","params":{"name":"x"}})", false},
        {R"("denyTools":["x"])", R"({"method":["tools/call"],"params":{"name":"x"}})", false},
        {R"("denyTools":["x"])", R"({"method":"tools/call","params":["x"]})", false},
        {R"("denyTools":["x"])", R"({"method":"tools/call","params":{"name":["x"]}})", false},
        {R"("denyTools":["x"])", R"({"method":"tools/call","params":{"name":"y","Name":"x"}})", false},
        {R"("denyTools":["x"])", R"({"method":"tools/call","params":{"name":"y","name":"x"}})", false},
        {R"("denyTools":["x"])", R"({"method":"ping","Method":"tools/call","params":{"name":"x"}})", false},
        {R"("denyTools":["x"])", R"({"method":"ping","method":"tools/call","params":{"name":"x"}})", false},
        {R"("denyTools":["x"])", R"({"method":"tools/call","params":{"name":"y"},"param\u017f":{"name":"x"}})", false},
        {R"("allowMethods":["ping"])", R"({"method":"ping"})", true},
        {R"("allowMethods":["ping"])", R"({"method":"initialize"})", false},
        {R"("allowMethods":["ping"])", R"({"id":1,"result":{}})", false},
        {R"("allowMethods":[])", R"({"method":""})", false},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(std::string(row.rules) + " " + row.request);
        setRules(row.rules);
        EXPECT_EQ(isRequestRefused(row.request), !row.isAllowed);
    }
    EXPECT_TRUE(
        holds(use("bridge_rpc", R"({"serviceId":"s","request":[)" + callOf("x") + "]}"), "must be a JSON-RPC object"));
}

TEST_F(McpServiceRulesTest, ListsShowWhatMayBeCalled) {
    const std::string list = R"({"id":1,"result":{"tools":[{"name":"a"},{"name":"b"},{"title":"none"},7]}})";
    const std::string events = "data: {\"id\":1,\"result\":{\"tools\":[{\"name\":\"b\"},{\"name\":\"a\"}]}}\n\n";
    setRules(R"("allowTools":["a"])");
    const auto answerWith = [this](const std::string& text, const char* type) {
        service_.answerNext("tools/list", [=](ZnHttpContext& context, const std::string&) {
            context.send(ZnByteArray(std::string_view(text)), type, 200);
        });
    };
    const std::string request = R"({"serviceId":"s","request":{"id":1,"method":"tools/list"}})";
    answerWith(list, "application/json");
    EXPECT_TRUE(holds(use("bridge_rpc", request), R"("result": {"tools": [{"name": "a"}]}})"));
    answerWith("[" + list + "]", "application/json");
    EXPECT_TRUE(holds(use("bridge_rpc", request), R"("body": [{"id": 1,"result": {"tools": [{"name": "a"}]}}])"));
    answerWith(events, "text/event-stream");
    EXPECT_TRUE(holds(use("bridge_rpc", request), R"("result": {"tools": [{"name": "a"}]}})"));
    answerWith(R"({"id":1,"result":{"tools":[{"name":"b"},{"name":"a"}]}})", "application/json");
    EXPECT_TRUE(
        holds(use("bridge_list_tools", R"({"serviceId":"s"})"), R"("structuredContent": {"tools": [{"name": "a"}]})"));
    setRules(R"("allowMethods":["tools/call"])");
    EXPECT_TRUE(isRefused("bridge_list_tools", R"({"serviceId":"s"})"));
}

} // namespace
