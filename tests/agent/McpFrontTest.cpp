#include "agent/AgentFixture.h"

namespace {

class McpFrontTest : public AgentFixture {
protected:
    static constexpr long long kSecondNs = 1000000000;
    int get(const Headers& headers) { return call("GET", "/mcp", headers).status; }
};

TEST_F(McpFrontTest, OriginsAreRefusedUnlessAllowed) {
    EXPECT_EQ(get({}), 405);
    EXPECT_EQ(bodyOf(call("GET", "/mcp")), R"({"error": "SSE stream is not implemented on this endpoint"})");
    const ZnHttpResponse refused = call("GET", "/mcp", {{"origin", "http://localhost"}});
    EXPECT_EQ(refused.status, 403);
    EXPECT_EQ(bodyOf(refused), R"({"error": "Origin not allowed"})");
    EXPECT_EQ(header(refused, "access-control-allow-origin"), "absent");

    agent_.setAllowedOrigin(" http://localhost ");
    peerAddress_ = "10.0.0.2";
    const ZnHttpResponse allowed = call("OPTIONS", "/mcp", {{"origin", "http://localhost"}});
    EXPECT_EQ(allowed.status, 204);
    const std::pair<const char*, const char*> headers[] = {
        {"access-control-allow-origin", "http://localhost"}, {"access-control-allow-credentials", "true"},
        {"vary", "origin"}, {"allow", "POST, GET, DELETE, OPTIONS"}, {"content-length", "0"},
        {"access-control-allow-methods", "POST, GET, DELETE, OPTIONS"}, {"access-control-expose-headers", "absent"},
        {"access-control-allow-headers", "authorization, content-type, accept, mcp-protocol-version, mcp-session-id"}};
    for (const auto& [name, value] : headers)
        EXPECT_EQ(header(allowed, name), value) << name;
    agent_.setInterop(true);
    EXPECT_EQ(header(call("GET", "/mcp", {{"origin", "http://localhost"}}), "access-control-expose-headers"),
              "mcp-session-id");
    const ZnHttpResponse plain = call("OPTIONS", "/mcp");
    EXPECT_EQ(header(plain, "access-control-expose-headers"), "absent");
    EXPECT_EQ(plain.status, 204);
    EXPECT_EQ(header(plain, "access-control-allow-origin"), "absent");
    EXPECT_EQ(call("OPTIONS", "/mcp", {{"origin", "HTTP://localhost"}}).status, 403);
    EXPECT_EQ(call("OPTIONS", "/mcp", {{"origin", "http://localhost"}}).status, 429) << "OPTIONS clears nothing";
}

TEST_F(McpFrontTest, TokensOpenTheGate) {
    agent_.setMcpToken(" s3cret ");
    const std::pair<const char*, int> rows[] = {{"Bearer s3cret", 405}, {"bearer  s3cret ", 405}, {"Bearer s3cre", 401},
                                                {"Bearer s3cret2", 401}, {"Basic  s3cret", 401}, {"", 401}};
    for (const auto& [authorization, status] : rows) {
        peerAddress_ += "x";
        EXPECT_EQ(get({{"authorization", authorization}}), status) << authorization;
    }
    agent_.setAllowedOrigin("http://localhost");
    peerAddress_ = "10.0.0.3";
    const ZnHttpResponse response = call("POST", "/mcp", {{"origin", "http://localhost"}}, "{}");
    EXPECT_EQ(response.status, 401);
    EXPECT_EQ(bodyOf(response), R"({"error": "Authentication required"})");
    EXPECT_EQ(header(response, "www-authenticate"), R"(Bearer realm="brelt-mcp-bridge")");
    EXPECT_EQ(header(response, "access-control-allow-origin"), "http://localhost");
}

TEST_F(McpFrontTest, FailuresBlockForLongerUntilAPass) {
    agent_.setMcpToken("t");
    const Headers right = {{"authorization", "Bearer t"}};
    EXPECT_EQ(get({}), 401);
    nowNs_ += kSecondNs / 2;
    const ZnHttpResponse blocked = call("GET", "/mcp", right);
    EXPECT_EQ(blocked.status, 429);
    EXPECT_EQ(header(blocked, "retry-after"), "5");
    EXPECT_EQ(bodyOf(blocked), R"({"error": "Too many failed MCP bridge attempts","retryAfterSeconds": 5})");
    EXPECT_TRUE(holds(bodyOf(call("GET", "/help")), "\n  POST   /mcp    "));
    nowNs_ += 4500 * (kSecondNs / 1000) - 1; // one nanosecond left: less than a millisecond counts as none
    EXPECT_EQ(get({}), 401);
    EXPECT_EQ(header(call("GET", "/mcp", right), "retry-after"), "60") << "the second failure";
    nowNs_ += 1000 * kSecondNs;
    EXPECT_EQ(get({}), 401);
    EXPECT_EQ(header(call("GET", "/mcp", right), "retry-after"), "60") << "every later one";
    nowNs_ += 60 * kSecondNs;
    EXPECT_EQ(get(right), 405);
    EXPECT_EQ(get({}), 401);
    EXPECT_EQ(header(call("GET", "/mcp", right), "retry-after"), "5") << "the pass has cleared the record";
}

TEST_F(McpFrontTest, ClientsAreTakenForTheirAddressFirst) {
    agent_.setMcpToken("t");
    const Headers spoofed = {{"x-forwarded-for", "1.1.1.1 , 2.2.2.2"}};
    EXPECT_EQ(get(spoofed), 401);
    EXPECT_EQ(get({{"x-forwarded-for", "3.3.3.3"}}), 429);
    peerAddress_ = " ";
    EXPECT_EQ(get(spoofed), 401);
    EXPECT_EQ(get({{"x-forwarded-for", "1.1.1.1"}}), 429);
    EXPECT_EQ(get({{"x-forwarded-for", ", 1.1.1.1"}}), 401);
    EXPECT_EQ(get({}), 401);
    EXPECT_EQ(get({}), 401) << "a client without a key is not throttled";
}

TEST(McpFailureTable, IsBoundedAndForgetsWhatExpiresFirst) {
    McpFailureTable table;
    table.recordFailure("twice", 0);
    table.recordFailure("twice", 1); // blocked for 60 seconds
    for (std::size_t i = 1; i < McpFailureTable::kMaxRecords; ++i)
        table.recordFailure("client" + std::to_string(i), static_cast<long long>(i));
    table.recordFailure("one more", 20000);
    table.recordFailure("and one", 20001);
    EXPECT_EQ(table.size(), McpFailureTable::kMaxRecords);
    const std::pair<const char*, int> waits[] = {{"client1", 0}, {"client2", 0}, {"client3", 5}, {"and one", 5}, {"twice", 60}};
    for (const auto& [client, seconds] : waits)
        EXPECT_EQ(table.waitSeconds(client, 20001), seconds) << client;
    table.clear("twice");
    EXPECT_EQ(table.waitSeconds("twice", 20001), 0);
}

TEST_F(McpFrontTest, ServicesLeaveWithoutTheirSecrets) {
    EXPECT_EQ(bodyOf(call("GET", "/services")), "[]");
    setServices(R"({"services":[5,{"id":"b b","url":"http://127.0.0.1"},{"id":42,"endpoint":"http://localhost",)"
                R"("bearerToken":"tok","tls_ca_file":"ca","timeoutMs":"250","enabled":0}]})");
    const std::string first =
        R"({"description": "","enabled": false,"endpoint": "http://localhost","hasBearerToken": true,"hasTlsCaFile": true,)"
        R"("id": "42","timeoutMs": 250,"title": "","transport": "streamable-http"})";
    const std::string second =
        R"({"description": "","enabled": true,"endpoint": "http://127.0.0.1","hasBearerToken": false,"hasTlsCaFile": false,)"
        R"("id": "b b","timeoutMs": 15000,"title": "","transport": "streamable-http"})";
    EXPECT_EQ(bodyOf(call("GET", "/services")), "[" + first + "," + second + "]");
    EXPECT_EQ(bodyOf(call("GET", "/services/b b")), second);
    EXPECT_EQ(call("GET", "/services/x").status, 404);
    const std::string session = newSession();
    EXPECT_EQ(callTool("bridge.list_services", "null", session), R"({"services": [)" + first + "," + second + "]}");
    const std::pair<const char*, std::string> rows[] = {
        {R"({"serviceId":" 42 "})", first},
        {R"({"serviceId":"x"})", R"(error: {"error": "Service not found","statusCode": 404})"},
        {"{}", R"(error: {"error": "Field 'serviceId' is required","statusCode": 400})"}};
    for (const auto& [arguments, result] : rows)
        EXPECT_EQ(callTool("bridge.get_service", arguments, session), result);
}

TEST_F(McpFrontTest, AllowlistTexts) {
    struct Row { const char* entry; const char* shown; }; // part of the view; empty: the entry is skipped
    for (const Row& row : {Row{R"({"endpoint":"u"})", ""},
                           {R"({"id":"a","endpoint":" "})", ""},
                           {R"({"id":"a","endpoint":"u","timeoutMs":0})", R"("timeoutMs": 15000)"},
                           {R"({"id":"a","endpoint":"u","enabled":null})", R"("enabled": true)"},
                           {R"({"id":"a","endpoint":"u","enabled":"yes"})", R"("enabled": false)"},
                           {R"({"id":"a","endpoint":"u","bearer_token":"t"})", R"("hasBearerToken": true)"},
                           {R"({"id":"a\u0000b ","endpoint":"u"})", R"("id": "a")"},
                           {R"({"id":"a","endpoint":"u"},{"id":"a","endpoint":"v"})", R"("endpoint": "v")"}}) {
        SCOPED_TRACE(row.entry);
        testing::internal::CaptureStderr();
        setServices("\xEF\xBB\xBF{\"services\":[" + std::string(row.entry) + "]}");
        const std::string skipped = testing::internal::GetCapturedStderr();
        const std::string list = bodyOf(call("GET", "/services"));
        EXPECT_EQ(list == "[]", *row.shown == '\0') << list;
        EXPECT_EQ(skipped.find("[McpBridge] Ignoring service ") == 0, *row.shown == '\0');
        EXPECT_NE(list.find(row.shown), std::string::npos) << list;
    }
    ZnString error;
    EXPECT_FALSE(Peer::parseServices(agent_, "{", &error));
    EXPECT_TRUE(error.startsWith("Unterminated JSON object"));
}

} // namespace
