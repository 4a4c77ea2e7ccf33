#include "agent/AgentFixture.h"
#include "core/io/ZnSslSocket.h"
#include "core/platform/ZnResolver.h"

#include <future>
#include <sstream>

namespace {

class McpForwardTest : public AgentFixture {
protected:
    void SetUp() override {
        AgentFixture::SetUp();
        session_ = newSession();
    }
    void TearDown() override { ZnResolver::setLookupForTests(nullptr); }

    void setService(const std::string& endpoint, const std::string& more = {}) {
        setServices(R"({"services":[{"id":"s","endpoint":")" + endpoint + "\"" + more +
                    R"(},{"id":"name","endpoint":"http://slow.test/","timeoutMs":50}]})");
    }
    /// Runs "bridge.rpc" on a fiber of its own.
    void beginRpc(const std::string& arguments, std::function<void(std::string)> onResult) {
        ZnTask task([this, arguments, onResult = std::move(onResult)] {
            onResult(callTool("bridge.rpc", arguments, session_));
        });
        // The first events of many connections may fill the pool for a moment.
        ASSERT_TRUE(application_.post(task, {.whenFull = ZnPostOptions::WhenFull::Wait}));
    }
    std::string rpc(const std::string& arguments = kToService) {
        const auto result = std::make_shared<std::string>(); // the call may last longer in a test that fails
        beginRpc(arguments, [result](std::string text) { *result = std::move(text); });
        EXPECT_TRUE(runUntil([&] { return !result->empty(); }));
        return *result;
    }
    /// The result when a service of its own does what `script` says.
    std::string rpcTo(ScriptedPeer::Script script, const std::string& more, const std::string& request = "{}") {
        ScriptedPeer peer(std::move(script));
        setService(peer.url(), more);
        return rpc(R"({"serviceId":"s","request":)" + request + "}");
    }
    static std::string failed(int code, const std::string& message = {}) {
        return R"(error: {"errorCode": )" + std::to_string(code) + R"(,"mcpSessionId": "",)" +
               (message.empty() ? "" : R"("message": ")" + message + "\",") +
               R"("rawBody": "","reason": "","statusCode": 0,"transportOk": false})";
    }
    static std::string refused(const std::string& text, int status) {
        return R"(error: {"error": ")" + text + R"(","statusCode": )" + std::to_string(status) + "}";
    }

    static inline const std::string kToService = R"({"serviceId":"s","request":{}})";
    std::string session_;
};

TEST_F(McpForwardTest, RefusalsComeInOrderAndWithoutACall) {
    ScriptedPeer peer(ScriptedPeer::silent());
    struct Row {
        const char* name;
        const char* more;
        std::string arguments;
        std::string result;
    };
    const Row rows[] = {
        {"no service", "", R"({"request":5})", refused("Field 'serviceId' is required", 400)},
        {"no request", "", R"({"serviceId":"x","request":[]})",
         refused("Field 'request' must be a JSON-RPC object", 400)},
        {"unknown", "", R"({"serviceId":"x","request":{}})", refused("Service not found", 404)},
        {"disabled", R"(,"enabled":false,"transport":"sse")", R"({"serviceId":" s ","request":{}})",
         refused("Service is disabled", 403)},
        {"transport", R"(,"transport":"sse")", kToService,
         refused("Only streamable-http MCP services are supported by this bridge", 400)},
        {"session", "", R"({"serviceId":"s","request":{},"sessionId":"a\r\nb: c"})",
         refused("Field 'sessionId' is not a valid header value", 400)},
        {"version", "", R"({"serviceId":"s","request":{},"protocolVersion":"a\u0000b"})",
         refused("Field 'protocolVersion' is not a valid header value", 400)},
        {"token", R"(,"bearerToken":"se\ncret")", kToService,
         refused("The bearer token of this service is not a valid header value", 500)},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        setService(peer.url(), row.more);
        EXPECT_EQ(rpc(row.arguments), row.result);
    }
    EXPECT_EQ(peer.connectionCount(), 0);
}

TEST_F(McpForwardTest, OutcomesOfTheCall) {
    struct Row {
        const char* name;
        const char* response;
        std::string result;
    };
    const Row rows[] = {
        {"object", "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}",
         R"({"body": {},"errorCode": 0,"mcpSessionId": "","reason": "OK","statusCode": 200,"transportOk": true})"},
        {"scalars", "HTTP/1.1 299 Fine\r\nMcp-Session-Id: a\r\n\r\n{\"v\":\"1.10\",\"jsonrpc\":\"2.0\",\"n\":\"12\"}",
         R"({"body": {"jsonrpc": 2,"n": 12,"v": 1.1},"errorCode": 0,"mcpSessionId": "a","reason": "Fine",)"
         R"("statusCode": 299,"transportOk": true})"},
        {"text", "HTTP/1.1 500 Oops\r\n\r\nplain \"text\"",
         R"(error: {"errorCode": 0,"mcpSessionId": "","rawBody": "plain \"text\"","reason": "Oops",)"
         R"("statusCode": 500,"transportOk": true})"},
        {"null", "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nnull",
         R"({"errorCode": 0,"mcpSessionId": "","rawBody": "null","reason": "OK","statusCode": 200,"transportOk": true})"},
        {"chunking", "HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\nxyz\r\n", failed(-4)},
        {"closed early", "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\n{}", failed(-1001)}, // at once
    };
    for (const Row& row : rows)
        EXPECT_EQ(rpcTo(ScriptedPeer::answering(row.response), R"(,"timeoutMs":60000)"), row.result) << row.name;
}

TEST_F(McpForwardTest, AnswersOfAServiceWithInterop) {
    const auto stream = [](const std::string& events) {
        return "HTTP/1.1 200 OK\r\nContent-Type: Text/Event-Stream; charset=utf-8\r\nMcp-Session-Id: 12\r\n"
               "Transfer-Encoding: chunked\r\n\r\n" +
               (std::ostringstream() << std::hex << events.size()).str() + "\r\n" + events + "\r\n";
    };
    const auto result = [](const std::string& body, const std::string& others = {}) {
        return "{" + body + R"(,"errorCode": 0,"mcpSessionId": "12",)" + others +
               R"("reason": "OK","statusCode": 200,"transportOk": true})";
    };
    const std::string json = R"({"v": "1.10","jsonrpc": "2.0","n": 1.10,"big": 12345678901234567890,"l": ["true")"
                             R"(,"",1e21,1E+2,-0,-0.0,0.1000000000000000055,null,{},"\" \\ \n \u0001"],"é": "ü€😀"})";
    const std::string progress = R"({"jsonrpc":"2.0","method":"notifications/progress","id":"7","params":{"p":1.0}})";
    const std::string answer = "data: {\"id\":\"7\",\ndata: \"result\":{\"n\":1.50}}\n\n";
    const std::string head = "HTTP/1.1 200 OK\r\nMcp-Session-Id: 12\r\nContent-Length: ";
    struct Row {
        const char* name;
        const char* request;
        std::string response;
        bool isEnded;
        std::string result;
    };
    const Row rows[] = {
        {"JSON", R"({"id":"7"})", head + std::to_string(json.size()) + "\r\n\r\n" + json, false,
         result(R"("body": {"big": 12345678901234567890,"jsonrpc": "2.0","l": ["true","",1e21,1E+2,-0,-0.0,)"
                R"(0.1000000000000000055,null,{},"\" \\ \n \u0001"],"n": 1.10,"v": "1.10","é": "ü€😀"})")},
        {"no answer to a notification", R"({"method":"m"})", head + "0\r\n\r\n", false,
         R"({"errorCode": 0,"mcpSessionId": "12","rawBody": "","reason": "OK","statusCode": 200,"transportOk": true})"},
        {"others come first", R"({"id":"7"})",
         stream("id: 1\ndata:\n\n: ping\n\ndata: " + progress + "\n\ndata: {\"id\":7,\"result\":{}}\n\ndata: oops\n\n" +
                "event: other\ndata: {\"id\":\"7\"}\n\n" + answer + "data: unread\n\n"),
         false,
         result(
             R"("body": {"id": "7","result": {"n": 1.50}})",
             R"("notifications": [{"id": "7","jsonrpc": "2.0","method": "notifications/progress","params": {"p": 1.0}},)"
             R"({"id": 7,"result": {}},"oops"],)")},
        {"by digits", R"({"id":1.0})", stream("data: [{\"id\":1},{\"id\":1.0,\"error\":{}},{\"id\":2}]\n\n"), false,
         result(R"("body": {"error": {},"id": 1.0})", R"("notifications": [{"id": 1},{"id": 2}],)")},
        {"no answer", R"({"id":1})", stream("data: {\"id\":2}\n\ndata: {\"id\":1}\n") + "0\r\n\r\n", true,
         R"(error: {"errorCode": 0,"mcpSessionId": "12","message": "the event stream ended without the answer",)"
         R"("notifications": [{"id": 2}],"rawBody": )"
         R"("data: {\"id\":2}\n\ndata: {\"id\":1}\n","reason": "OK","statusCode": 200,"transportOk": true})"},
        {"interim heads, and no UTF-8", R"({"id":1})",
         "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 O\xFFK\r\nMcp-Session-Id: 12\r\nContent-Length: "
         "12\r\n\r\n{\"a\":\"\xC3(\xE2\x82\"}",
         false,
         R"({"body": {"a": "�(��"},"errorCode": 0,"mcpSessionId": "12","reason": "O�K","statusCode": 200,"transportOk": true})"},
        {"text that is no UTF-8", R"({"id":1})", head + "3\r\n\r\na\xFFz", false,
         R"({"errorCode": 0,"mcpSessionId": "12","rawBody": "a�z","reason": "OK","statusCode": 200,"transportOk": true})"},
    };
    LogCapture log;
    for (const Row& row : rows) {
        const auto script = row.isEnded ? &ScriptedPeer::answering : &ScriptedPeer::answeringAndStaying;
        EXPECT_EQ(rpcTo(script(row.response), R"(,"interop":true)", row.request), row.result) << row.name;
    }
}

TEST_F(McpForwardTest, ALongStreamOfSmallEventsKeepsItsOrderAndOneOfTooManyIsCutOff) {
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\n\r\n";
    const std::string interop = R"(,"interop":true)";
    std::string events;
    std::string notifications;
    for (int i = 0; i < 30000; ++i) { // more than is read on the loop
        const std::string message = R"({"n": )" + std::to_string(i) + "}";
        events += "data: " + message + "\n\n";
        notifications += (i == 0 ? "" : ",") + message;
    }
    const auto script = ScriptedPeer::answeringAndStaying(head + events + "data: {\"id\":1}\n\n");
    EXPECT_TRUE(rpcTo(script, interop, R"({"id":1})") ==
                R"({"body": {"id": 1},"errorCode": 0,"mcpSessionId": "","notifications": [)" + notifications +
                    R"(],"reason": "OK","statusCode": 200,"transportOk": true})");
    LogCapture log;
    events.clear();
    for (std::size_t i = 0; i <= McpAnswerStream::kMaxMessages; ++i)
        events += "data:0\n\n";
    EXPECT_TRUE(holds(rpcTo(ScriptedPeer::answeringAndStaying(head + events), interop), "\"errorCode\": -6"));
}

TEST_F(McpForwardTest, AnswersAreBoundedAlsoByWhatTheyBecome) {
    LogCapture log;
    constexpr std::size_t kMax = 1 << 20;
    agent_.setMaxAnswerBytes(kMax);
    const std::string counted = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(kMax - 100) + "\r\n\r\n";
    const std::string large = "\"" + std::string(kMax - 102, 'x') + "\"";
    struct Row {
        const char* name;
        std::string head, body;
        bool isTaken;
    };
    for (const Row& row : {Row{"large", counted, large, true},
                           {"grows when it is escaped", counted, std::string(kMax - 100, '\x01'), false},
                           {"announces too much", "HTTP/1.1 200 OK\r\nContent-Length: 1048577\r\n\r\n", "", false},
                           {"has no end", "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\n\r\ndata: ",
                            std::string(2 * kMax, 'x'), false},
                           {"has no end of the head", "HTTP/1.1 200 OK\r\nA: ", std::string(70000, 'x'), false}})
        for (const bool isInterop : {true, false}) {
            SCOPED_TRACE(row.name + std::string(isInterop ? ", with interoperability" : ""));
            ScriptedPeer peer(ScriptedPeer::answeringAndStaying(row.head + row.body));
            setService(peer.url(), isInterop ? R"(,"interop":true)" : "");
            const std::string address = "127.0.0.1:" + std::to_string(peer.port());
            EXPECT_EQ(rpc(), row.isTaken
                                 ? R"({"body": )" + large + R"(,"errorCode": 0,"mcpSessionId": "","reason": "OK",)" +
                                       R"("statusCode": 200,"transportOk": true})"
                                 : failed(-6, isInterop ? "the answer of " + address + " is too large" : ""));
        }
}

TEST_F(McpForwardTest, FailuresHaveTheirCodeAndExplainThemselvesWithInterop) {
    LogCapture log;
    ScriptedPeer silent(ScriptedPeer::silent()); // over TLS it stays in the handshake
    ScriptedPeer plain([](ScriptedPeer::Connection& connection) {
        connection.send("no TLS");
        connection.waitForClose();
    });
    ScriptedPeer early(ScriptedPeer::answering("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\n{}"));
    const std::string closed = ScriptedPeer(ScriptedPeer::silent()).url();
    const std::string address = closed.substr(7, closed.find('/', 7) - 7);
    ZnResolver::setLookupForTests([](const ZnString&) { return ZnResolver::Result(); });
    const struct {
        std::string url;
        int code;
        std::string message;
    } kRows[] = {
        {closed, 10061, "connection refused by " + address},
        {silent.url(), -1001, "no answer within 200 ms"},
        {"https" + silent.url().substr(4), -1001, "no answer within 200 ms"},
        {"https" + plain.url().substr(4), ZnSslSocket::kHandshakeFailed,
         "TLS with 127.0.0.1:" + std::to_string(plain.port()) + " failed"},
        {early.url(), -1001,
         "127.0.0.1:" + std::to_string(early.port()) + " closed the connection before its answer was complete"},
        {"http://user:hush@" + address + "/", -1, "the endpoint in the allowlist is no usable URL"},
        {"http://name.test:81/?hush", 11001, "the host name of name.test:81 is not known"}};
    for (const auto& row : kRows) {
        log.take();
        setService(row.url, R"(,"interop":true,"timeoutMs":200)");
        EXPECT_EQ(rpc(), failed(row.code, row.message));
        EXPECT_EQ(log.countOf("call to service \"s\" failed: " + std::to_string(row.code) + ", " + row.message), 1);
        EXPECT_EQ(log.countOf("hush"), 0);
    }
    ScriptedPeer status(ScriptedPeer::answering("HTTP/1.1 401 No\x1Bway\r\nContent-Length: 0\r\n\r\n"));
    setService(status.url(), R"(,"interop":true)");
    const std::string saysNo = ":" + std::to_string(status.port()) + " answered with status 401 No\\x1Bway";
    EXPECT_TRUE(holds(rpc(), "\"message\": \"127.0.0.1" + std::string(saysNo).insert(saysNo.find('\\'), "\\")));
    EXPECT_EQ(log.countOf("call to service \"s\" failed: 0, 127.0.0.1" + saysNo), 1);
    setService(closed, "");
    for (int i = 0; i < 30; ++i)
        rpc();
    EXPECT_LE(log.countOf("call to service"), 2 * McpCallsInFlight::kReportsPerSecond + 5);
    for (const auto& row : kRows) {
        setService(row.url, R"(,"timeoutMs":200)");
        EXPECT_EQ(rpc(), failed(row.code)) << row.url;
    }
    EXPECT_EQ(log.countOf("hush"), 0);
    setService("http://user:hush@" + address + "/a@b?c", "");
    EXPECT_TRUE(holds(bodyOf(call("GET", "/services/s")), "\"endpoint\": \"http://" + address + "/a@b?c\""));
}

TEST_F(McpForwardTest, ACallEndsWithItsClient) {
    ASSERT_TRUE(agent_.start("", 0, "", ""));
    for (const bool isReset : {true, false}) {
        std::promise<void> requested;
        std::promise<void> closed;
        ScriptedPeer peer([&](ScriptedPeer::Connection& connection) {
            connection.receiveRequest();
            requested.set_value();
            connection.waitForClose();
            closed.set_value();
        });
        setService(peer.url(), R"(,"timeoutMs":60000)");
        const int client = connectToLoopback(agent_.localPort());
        const std::string body = bridgeCall("s");
        const std::string message = "POST /mcp HTTP/1.1\r\nhost: a\r\nmcp-session-id: " + session_ +
                                    "\r\ncontent-length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
        ASSERT_EQ(::send(client, message.data(), message.size(), 0), static_cast<ssize_t>(message.size()));
        std::future<void> isRequested = requested.get_future();
        ASSERT_TRUE(
            pollUntil([&] { return isRequested.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
        if (isReset)
            resetOnClose(client);
        ::close(client);
        std::future<void> isClosed = closed.get_future();
        EXPECT_TRUE(pollUntil([&] { return isClosed.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
    }
}

TEST_F(McpForwardTest, ConnectionsAreKeptWhereTheListOrElseTheOptionSaysSo) {
    const struct {
        bool option;
        const char* member;
        int connectionCount;
    } kRows[] = {{false, "", 3},
                 {true, "", 1},
                 {true, R"(,"keepAlive":false)", 3},
                 {false, R"(,"keepAlive":true)", 1},
                 {true, R"(,"keepAlive":null)", 1}};
    for (const auto& [option, member, connectionCount] : kRows) {
        SCOPED_TRACE(member);
        agent_.setKeepAlive(option, 4);
        ScriptedPeer peer([](ScriptedPeer::Connection& connection) {
            while (!connection.receiveRequest().empty())
                connection.send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}");
        });
        setService(peer.url(), member);
        for (int i = 0; i < 3; ++i)
            EXPECT_TRUE(holds(rpc(), "\"transportOk\": true"));
        EXPECT_EQ(peer.connectionCount(), connectionCount);
    }
}

TEST_F(McpForwardTest, AKeptConnectionCarriesOneTokenAlone) {
    std::mutex lock;
    std::vector<std::string> tokens; // of each connection, in the order in which they begin
    std::atomic<int> openCount{0};
    ScriptedPeer peer([&](ScriptedPeer::Connection& connection) {
        ++openCount;
        std::size_t index = std::string::npos;
        for (std::string request; !(request = connection.receiveRequest()).empty();) {
            {
                const std::lock_guard<std::mutex> guard(lock);
                if (index == std::string::npos)
                    index = tokens.size(), tokens.emplace_back();
                tokens[index] += request.substr(request.find("Bearer ") + 7, 1);
            }
            connection.send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}");
        }
        --openCount;
    });
    agent_.setKeepAlive(true, 4);
    const auto setTokens = [&](const std::string& first) {
        setServices(R"({"services":[{"id":"s","endpoint":")" + peer.url() + R"(","bearerToken":")" + first +
                    R"("},{"id":"t","endpoint":")" + peer.url() + R"(","bearerToken":"two"}]})");
    };
    const auto callBoth = [&] {
        rpc();
        rpc(R"({"serviceId":"t","request":{}})");
    };
    setTokens("one");
    callBoth();
    callBoth();
    setTokens("new");
    callBoth();
    EXPECT_EQ(tokens, (std::vector<std::string>{"oo", "tt", "n", "t"}));
    EXPECT_TRUE(pollUntil([&] { return openCount == 2; })); // those of the list before are closed
    Peer::dispatcher(agent_).stop();
    EXPECT_TRUE(pollUntil([&] { return openCount == 0; }));
}

TEST_F(McpForwardTest, ACallHasTheTimeOfItsService) {
    setService("http://127.0.0.1:1/", R"(,"timeoutMs":100000)");
    const ZnHttpTimeouts timeouts = Peer::timeouts(agent_);
    EXPECT_GT(timeouts.handlerTimeoutMs.value_or(0), 100000);
    EXPECT_EQ(timeouts.bodyTimeoutMs, ZnHttpTimeouts().bodyTimeoutMs);
}

TEST_F(McpForwardTest, WhatCallsHoldIsBounded) {
    const auto workers = std::make_shared<McpWorkers>();
    McpCallsInFlight calls;
    McpForwardCall call(McpBridgeServiceRecord(), {}, 1024, *workers);
    {
        McpCallsInFlight::Entry entry(calls, call, "s", ZnString());
        EXPECT_TRUE(entry.hold(McpCallsInFlight::kMaxBytes));
        EXPECT_STREQ(calls.refusal("s", 1, false), "Too many bridge bytes in flight");
        EXPECT_FALSE(entry.hold(McpCallsInFlight::kMaxBytes + 1));
        EXPECT_TRUE(entry.hold(10));
        EXPECT_EQ(calls.refusal("s", McpCallsInFlight::kMaxBytes - 10, false), nullptr);
    }
    EXPECT_EQ(calls.refusal("s", McpCallsInFlight::kMaxBytes, true), nullptr);
    const auto shared = std::make_shared<McpCallsInFlight>(); // and what waits for slow clients
    std::shared_ptr<const void> alone = McpCallsInFlight::holdUnsent(shared, 2 * McpCallsInFlight::kMaxBytes);
    EXPECT_TRUE(alone);
    EXPECT_FALSE(McpCallsInFlight::holdUnsent(shared, 1));
    alone.reset();
    EXPECT_TRUE(McpCallsInFlight::holdUnsent(shared, 1));
}

TEST_F(McpForwardTest, EachServiceGetsTheRequestInItsReading) {
    struct Row {
        const char* sessionId;
        bool agent;
        const char* service;
        bool isExact;
        std::string sentSession;
    };
    for (const Row& row : {Row{"12", false, "", false, ""},
                           {" up-1 ", false, "", false, "Mcp-Session-Id: up-1\r\n"},
                           {"12", true, R"(,"interop":null)", true, "Mcp-Session-Id: 12\r\n"},
                           {"12", false, R"(,"interop":true)", true, "Mcp-Session-Id: 12\r\n"},
                           {"12", true, R"(,"interop":false)", false, "Mcp-Session-Id: 12\r\n"}}) {
        SCOPED_TRACE(std::string(row.sessionId) + (row.agent ? "on" : "off") + row.service);
        std::promise<std::string> received;
        ScriptedPeer peer([&](ScriptedPeer::Connection& connection) {
            received.set_value(connection.receiveRequest());
            connection.send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{\"v\":1.0}");
        });
        agent_.setInterop(row.agent);
        setService(peer.url("/p?q"),
                   std::string(row.service) + R"(,"bearerToken":" tok ","transport":"STREAMABLE-HTTP")");
        const std::string result = rpc(R"({"serviceId":"s","sessionId":")" + std::string(row.sessionId) +
                                       R"(","request":{"jsonrpc":"2.0","id":"7","a":{"t":"12","n":1.10}}})");
        EXPECT_EQ(result,
                  R"({"body": {"v": )" + std::string(row.isExact ? "1.0" : "1") +
                      R"(},"errorCode": 0,"mcpSessionId": "","reason": "OK","statusCode": 200,"transportOk": true})");
        const std::string body = row.isExact ? R"({"a": {"n": 1.10,"t": "12"},"id": "7","jsonrpc": "2.0"})"
                                             : R"({"a": {"n": 1.1,"t": 12},"id": 7,"jsonrpc": 2})";
        EXPECT_EQ(received.get_future().get(),
                  "POST /p?q HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(peer.port()) +
                      "\r\nAccept: application/json" + (row.isExact ? ", text/event-stream" : "") +
                      "\r\nAuthorization: Bearer tok\r\n" + row.sentSession +
                      "Connection: close\r\nUser-Agent: ZnHttpClient/1.0\r\nContent-Type: application/json\r\n"
                      "Content-Length: " +
                      std::to_string(body.size()) + "\r\n\r\n" + body);
    }
    EXPECT_EQ(rpc(R"({"serviceId":"s","request":{"n":1e999}})"),
              refused("Field 'request' holds a number that this service cannot take", 400));
}

TEST_F(McpForwardTest, CallsInFlightAreBoundedAndDelayNobodyAndEndWithTheAgent) {
    LogCapture log;
    std::promise<void> release;
    ZnResolver::setLookupForTests([released = release.get_future().share()](const ZnString&) {
        released.wait();
        return ZnResolver::Result();
    });
    ScriptedPeer peer(ScriptedPeer::silent());
    ASSERT_TRUE(agent_.start("", 0, "", ""));
    setService(peer.url());
    EXPECT_EQ(rpc(R"({"serviceId":"name","request":{}})"), failed(-1001)); // the time limit ends the look-up
    setService("http://slow.test/");
    std::vector<std::string> results;
    const auto note = [&](std::string text) { results.push_back(std::move(text)); };
    beginRpc(kToService, note);
    ASSERT_TRUE(runUntil([&] { return parkedCount() == 1; }));
    const std::string other = R"({"serviceId":"t","request":{}})";
    setServices(R"({"services":[{"id":"s","endpoint":")" + peer.url() + R"("},{"id":"t","endpoint":")" + peer.url() +
                "\"}]}");
    constexpr int kHalf = McpCallsInFlight::kMaxCalls / 2;
    for (int i = 1; i < kHalf; ++i)
        beginRpc(kToService, note);
    ASSERT_TRUE(runUntil([&] { return parkedCount() == kHalf; }));
    EXPECT_EQ(rpc(), refused("Too many calls in flight to this service", 503));
    for (int i = 0; i < kHalf; ++i)
        beginRpc(other, note);
    ASSERT_TRUE(runUntil([&] { return parkedCount() == 2 * kHalf; }));
    EXPECT_EQ(rpc(other), refused("Too many bridge calls in flight", 503));
    EXPECT_EQ(rpc(R"({"serviceId":"s","request":1})"), refused("Field 'request' must be a JSON-RPC object", 400));
    EXPECT_TRUE(results.empty());
    agent_.stop();
    EXPECT_EQ(agent_.localPort(), 0);
    EXPECT_EQ(results, std::vector<std::string>(McpCallsInFlight::kMaxCalls, failed(-1002)));
    EXPECT_EQ(parkedCount(), 0);
    EXPECT_EQ(rpc(), refused("Agent is stopping", 503));
    release.set_value();
}

} // namespace
