#include "agent/AgentFixture.h"
#include "core/io/ZnSslSocket.h"

#include "core/platform/ZnResolver.h"

#include <atomic>
#include <future>
#include <sstream>
#include <thread>

namespace {

class McpForwardTest : public AgentFixture {
protected:
    void SetUp() override {
        AgentFixture::SetUp();
        session_ = newSession();
    }
    void TearDown() override { ZnResolver::setLookupForTests(nullptr); }

    void setService(const std::string& endpoint, const std::string& more = {}) {
        setServices(R"({"services":[{"id":"s","endpoint":")" + endpoint + "\"" + more + "}]}");
    }
    /// Runs "bridge.rpc" on a fiber of its own.
    void beginRpc(const std::string& arguments, std::function<void(std::string)> onResult) {
        ZnTask task([this, arguments, onResult = std::move(onResult)] {
            onResult(callTool("bridge.rpc", arguments, session_));
        });
        // The first events of many connections may fill the pool for a moment.
        ASSERT_TRUE(runUntil([&] { return application_.tryPostOnLane(task, 2); }));
    }
    std::string rpc(const std::string& arguments = R"({"serviceId":"s","request":{}})") {
        std::string result;
        beginRpc(arguments, [&](std::string text) { result = std::move(text); });
        EXPECT_TRUE(runUntil([&] { return !result.empty(); }));
        return result;
    }
    static std::string failed(int code) {
        return R"(error: {"errorCode": )" + std::to_string(code) +
               R"(,"mcpSessionId": "","rawBody": "","reason": "","statusCode": 0,"transportOk": false})";
    }

    std::string session_;
};

/// One HTTP exchange on a thread of its own, for a server on the test's thread.
class HttpCall {
public:
    HttpCall(ZnCoreApplication& application, unsigned short port, const std::string& request)
        : thread_([&application, port, request, this] {
              exchange_(port, request);
              isDone_ = true;
              application.wake();
          }) {}
    ~HttpCall() { thread_.join(); }
    bool isDone() const { return isDone_; }
    const std::string& response() const { return response_; } // when done

    static std::string post(const std::string& session, const std::string& body) {
        return "POST /mcp HTTP/1.1\r\nhost: a\r\nconnection: close\r\nmcp-session-id: " + session +
               "\r\ncontent-length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    }

private:
    void exchange_(unsigned short port, const std::string& request) {
        const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
            ScriptedPeer::Connection(descriptor).send(request);
            char buffer[4096];
            for (ssize_t got = 1; got > 0;) {
                got = ::recv(descriptor, buffer, sizeof(buffer), 0);
                response_.append(buffer, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
            }
        }
        ::close(descriptor);
    }

    std::string response_;
    std::atomic<bool> isDone_{false};
    std::thread thread_;
};

TEST_F(McpForwardTest, RefusalsComeInOrderAndWithoutACall) {
    ScriptedPeer peer(ScriptedPeer::silent());
    struct Row {
        const char* name;
        const char* more;
        const char* arguments;
        const char* error;
    };
    const Row rows[] = {
        {"no service", "", R"({"request":5})", R"("Field 'serviceId' is required","statusCode": 400)"},
        {"no request", "", R"({"serviceId":"x","request":[]})",
         R"("Field 'request' must be a JSON-RPC object","statusCode": 400)"},
        {"unknown", "", R"({"serviceId":"x","request":{}})", R"("Service not found","statusCode": 404)"},
        {"disabled", R"(,"enabled":false,"transport":"sse")", R"({"serviceId":" s ","request":{}})",
         R"("Service is disabled","statusCode": 403)"},
        {"transport", R"(,"transport":"sse")", R"({"serviceId":"s","request":{}})",
         R"("Only streamable-http MCP services are supported by this bridge","statusCode": 400)"},
        {"session", "", R"({"serviceId":"s","request":{},"sessionId":"a\r\nb: c"})",
         R"("Field 'sessionId' is not a valid header value","statusCode": 400)"},
        {"version", "", R"({"serviceId":"s","request":{},"protocolVersion":"a\u0000b"})",
         R"("Field 'protocolVersion' is not a valid header value","statusCode": 400)"},
        {"token", R"(,"bearerToken":"se\ncret")", R"({"serviceId":"s","request":{}})",
         R"("The bearer token of this service is not a valid header value","statusCode": 500)"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        setService(peer.url(), row.more);
        EXPECT_EQ(rpc(row.arguments), std::string(R"(error: {"error": )") + row.error + "}");
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
        {"scalars are read", "HTTP/1.1 299 Fine\r\nMcp-Session-Id: abc\r\n\r\n"
                             R"({"v":"1.10","jsonrpc":"2.0","n":"12"})",
         R"({"body": {"jsonrpc": 2,"n": 12,"v": 1.1},"errorCode": 0,"mcpSessionId": "abc","reason": "Fine",)"
         R"("statusCode": 299,"transportOk": true})"},
        {"text", "HTTP/1.1 500 Oops\r\n\r\nplain \"text\"",
         R"(error: {"errorCode": 0,"mcpSessionId": "","rawBody": "plain \"text\"","reason": "Oops","statusCode": 500,"transportOk": true})"},
        {"empty", "HTTP/1.1 202 Accepted\r\nContent-Length: 0\r\n\r\n",
         R"({"errorCode": 0,"mcpSessionId": "","rawBody": "","reason": "Accepted","statusCode": 202,"transportOk": true})"},
        {"null", "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nnull",
         R"({"errorCode": 0,"mcpSessionId": "","rawBody": "null","reason": "OK","statusCode": 200,"transportOk": true})"},
        {"chunking", "HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\nxyz\r\n", failed(-4)},
        {"closed early", "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\n{}", failed(-1001)},
    };
    LogCapture log;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ScriptedPeer peer(ScriptedPeer::answering(row.response));
        setService(peer.url(), R"(,"timeoutMs":1000)");
        EXPECT_EQ(rpc(), row.result);
    }
    setService("no url");
    EXPECT_EQ(rpc(), failed(-1));
    ScriptedPeer plain([](ScriptedPeer::Connection& connection) {
        connection.send("no TLS");
        connection.waitForClose();
    });
    setService("https" + plain.url().substr(4));
    EXPECT_EQ(rpc(), failed(ZnSslSocket::kHandshakeFailed));
    ScriptedPeer stalled(ScriptedPeer::silent()); // in the handshake
    setService("https" + stalled.url().substr(4), R"(,"timeoutMs":200)");
    EXPECT_EQ(rpc(), failed(-1001));
    ZnResolver::setLookupForTests([](const ZnString&) { return ZnResolver::Result(); });
    setService("http://name.test/");
    EXPECT_EQ(rpc(), failed(11001));
}

TEST_F(McpForwardTest, TheRequestIsRewrittenAndCarriesItsHeaders) {
    std::promise<std::string> received;
    ScriptedPeer peer([&](ScriptedPeer::Connection& connection) {
        received.set_value(connection.receiveRequest());
        connection.send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n[]");
    });
    setService(peer.url("/p?q"), R"(,"bearerToken":" tok ","transport":"STREAMABLE-HTTP")");
    EXPECT_EQ(rpc(R"({"serviceId":"s","request":{"method":"m","jsonrpc":"2.0","id":"7"},
                     "sessionId":" up-1 ","protocolVersion":20250618})"),
              R"({"body": [],"errorCode": 0,"mcpSessionId": "","reason": "OK","statusCode": 200,"transportOk": true})");
    EXPECT_EQ(received.get_future().get(),
              "POST /p?q HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(peer.port()) +
                  "\r\nAccept: application/json\r\nAuthorization: Bearer tok\r\nMcp-Session-Id: up-1\r\n"
                  "Connection: close\r\nUser-Agent: ZnHttpClient/1.0\r\nContent-Type: application/json\r\n"
                  "Content-Length: 36\r\n\r\n"
                  R"({"id": 7,"jsonrpc": 2,"method": "m"})");
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
    const std::string json = R"({"v": "1.10","jsonrpc": "2.0","n": 1.10,"big": 12345678901234567890})";
    const std::string progress = R"({"jsonrpc":"2.0","method":"notifications/progress","id":"7","params":{"p":1.0}})";
    const std::string answer = "data: {\"id\":\"7\",\ndata: \"result\":{\"n\":1.50}}\n\n";
    struct Row {
        const char* name;
        const char* request;
        std::string response;
        bool isEnded; // the stream ends
        std::string result;
    };
    const Row rows[] = {
        {"JSON", R"({"id":"7"})",
         "HTTP/1.1 200 OK\r\nMcp-Session-Id: 12\r\nContent-Length: " + std::to_string(json.size()) + "\r\n\r\n" + json, false,
         result(R"("body": {"big": 12345678901234567890,"jsonrpc": "2.0","n": 1.10,"v": "1.10"})")},
        {"no answer to a notification", R"({"method":"m"})",
         "HTTP/1.1 200 OK\r\nMcp-Session-Id: 12\r\nContent-Length: 0\r\n\r\n", false, 
         R"({"errorCode": 0,"mcpSessionId": "12","rawBody": "","reason": "OK","statusCode": 200,"transportOk": true})"},
        {"the answer ends an open stream", R"({"id":"7"})", stream(answer), false,
         result(R"("body": {"id": "7","result": {"n": 1.50}})")},
        {"others come first", R"({"id":"7"})",
         stream("id: 1\ndata:\n\n: ping\n\ndata: " + progress + "\n\ndata: {\"id\":7,\"result\":{}}\n\ndata: oops\n\n" +
                "event: other\ndata: {\"id\":\"7\"}\n\n" + answer + "data: unread\n\n"), false,
         result(R"("body": {"id": "7","result": {"n": 1.50}})",
                R"("notifications": [{"id": "7","jsonrpc": "2.0","method": "notifications/progress","params": {"p": 1.0}},)"
                R"({"id": 7,"result": {}},"oops"],)")},
        {"ids by their digits", R"({"id":1.0})", stream("data: [{\"id\":1},{\"id\":1.0,\"error\":{}},{\"id\":2}]\n\n"), false,
         result(R"("body": {"error": {},"id": 1.0})", R"("notifications": [{"id": 1},{"id": 2}],)")},
        {"no answer", R"({"id":1})", stream("data: {\"id\":2}\n\ndata: {\"id\":1}\n") + "0\r\n\r\n", true,
         R"({"errorCode": 0,"mcpSessionId": "12","notifications": [{"id": 2}],"rawBody": )"
         R"("data: {\"id\":2}\n\ndata: {\"id\":1}\n","reason": "OK","statusCode": 200,"transportOk": true})"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ScriptedPeer peer([&row](ScriptedPeer::Connection& connection) {
            connection.receiveRequest();
            connection.send(row.response);
            if (!row.isEnded)
                connection.waitForClose();
        });
        setService(peer.url(), R"(,"interop":true)");
        EXPECT_EQ(rpc(R"({"serviceId":"s","request":)" + std::string(row.request) + "}"), row.result);
    }
}

TEST_F(McpForwardTest, AnAnswerWithoutAnEndIsCutOffWithInterop) {
    ScriptedPeer peer([](ScriptedPeer::Connection& connection) {
        connection.receiveRequest();
        connection.send("HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\n\r\ndata: ");
        for (int piece = 0; piece <= 64; ++piece)
            connection.send(std::string(1048576, 'x'));
        connection.waitForClose();
    });
    setService(peer.url(), R"(,"interop":true)");
    EXPECT_EQ(rpc(), failed(-6));
}

TEST_F(McpForwardTest, EachServiceGetsTheRequestInItsReading) {
    struct Row {
        bool agent;
        const char* service;
        bool isExact;
        bool keepsSession;
    };
    for (const Row& row : {Row{false, "", false, false}, {true, R"(,"interop":null)", true, true},
                           {false, R"(,"interop":true)", true, true}, {true, R"(,"interop":false)", false, true}}) {
        SCOPED_TRACE(std::string(row.agent ? "on" : "off") + row.service);
        std::promise<std::string> received;
        ScriptedPeer peer([&](ScriptedPeer::Connection& connection) {
            received.set_value(connection.receiveRequest());
            connection.send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{\"v\":1.0}");
        });
        agent_.setInterop(row.agent);
        setService(peer.url(), row.service);
        const std::string result = rpc(
            R"({"serviceId":"s","sessionId":"12","request":{"jsonrpc":"2.0","id":"7","a":{"t":"12","n":1.10}}})");
        EXPECT_NE(result.find(row.isExact ? R"("body": {"v": 1.0})" : R"("body": {"v": 1})"), std::string::npos) << result;
        const std::string request = received.get_future().get();
        const auto holds = [&](const std::string& text) { return request.find(text) != std::string::npos; };
        EXPECT_TRUE(holds(row.isExact ? R"({"a": {"n": 1.10,"t": "12"},"id": "7","jsonrpc": "2.0"})"
                                      : R"({"a": {"n": 1.1,"t": 12},"id": 7,"jsonrpc": 2})")) << request;
        EXPECT_TRUE(holds(row.isExact ? "Accept: application/json, text/event-stream\r\n" : "Accept: application/json\r\n"));
        EXPECT_EQ(holds("Mcp-Session-Id: 12\r\n"), row.keepsSession);
    }
    EXPECT_EQ(rpc(R"({"serviceId":"s","request":{"n":1e999}})"),
              R"(error: {"error": "Field 'request' holds a number that this service cannot take","statusCode": 400})");
}

TEST_F(McpForwardTest, TheTimeLimitAlsoEndsTheLookUpOfAName) {
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    ZnResolver::setLookupForTests([released](const ZnString&) {
        released.wait();
        return ZnResolver::Result();
    });
    setService("http://slow.test/", R"(,"timeoutMs":50)");
    EXPECT_EQ(rpc(), failed(-1001));
    release.set_value();
}

TEST_F(McpForwardTest, CallsInFlightAreBoundedAndEndWithTheAgent) {
    ScriptedPeer peer(ScriptedPeer::silent());
    setService(peer.url());
    std::vector<std::string> results;
    const auto note = [&](std::string text) { results.push_back(std::move(text)); };
    for (std::size_t i = 0; i < McpForwardCalls::kMaxCalls; ++i)
        beginRpc(R"({"serviceId":"s","request":{}})", note);
    ASSERT_TRUE(runUntil([&] { return parkedCount() == static_cast<int>(McpForwardCalls::kMaxCalls); }));
    EXPECT_EQ(rpc(), R"(error: {"error": "Too many bridge calls in flight","statusCode": 503})");
    EXPECT_EQ(rpc(R"({"serviceId":"s","request":1})"),
              R"(error: {"error": "Field 'request' must be a JSON-RPC object","statusCode": 400})");
    Peer::stopCalls(agent_);
    ASSERT_TRUE(runUntil([&] { return results.size() == McpForwardCalls::kMaxCalls; }));
    EXPECT_EQ(results.front(), failed(-1002));
    EXPECT_EQ(results.back(), failed(-1002));
    EXPECT_EQ(rpc(), R"(error: {"error": "Agent is stopping","statusCode": 503})");
}

TEST_F(McpForwardTest, OthersAreServedMeanwhileAndAStopAnswersWhatWaits) {
    LogCapture log;
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    ZnResolver::setLookupForTests([released](const ZnString&) {
        released.wait();
        return ZnResolver::Result();
    });
    ScriptedPeer peer(ScriptedPeer::silent());
    ASSERT_TRUE(agent_.start("", 0, "", "key.pem"));
    setServices(R"({"services":[{"id":"s","endpoint":")" + peer.url() + R"("},
                                {"id":"n","endpoint":"http://slow.test/"}]})");
    const auto callBody = [](const char* service) {
        return std::string(R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"bridge.rpc",)") +
               R"("arguments":{"serviceId":")" + service + R"(","request":{}}}})";
    };
    const HttpCall answering(application_, agent_.localPort(), HttpCall::post(session_, callBody("s")));
    const HttpCall resolving(application_, agent_.localPort(), HttpCall::post(session_, callBody("n")));
    ASSERT_TRUE(runUntil([&] { return parkedCount() == 2; }));
    const HttpCall help(application_, agent_.localPort(), "GET /help HTTP/1.0\r\n\r\n");
    ASSERT_TRUE(runUntil([&] { return help.isDone(); }));
    EXPECT_NE(help.response().find("BreltMcpBridgeAgent API"), std::string::npos);
    EXPECT_FALSE(answering.isDone() || resolving.isDone());

    agent_.stop();
    EXPECT_EQ(agent_.localPort(), 0);
    EXPECT_EQ(parkedCount(), 0);
    ASSERT_TRUE(runUntil([&] { return answering.isDone() && resolving.isDone(); }));
    EXPECT_NE(answering.response().find(R"("errorCode": -1002)"), std::string::npos) << answering.response();
    EXPECT_NE(resolving.response().find(R"("errorCode": -1002)"), std::string::npos) << resolving.response();
    release.set_value();
}

TEST_F(McpForwardTest, StartFailsWithItsReason) {
    LogCapture log;
    EXPECT_FALSE(agent_.start("127.0.0.1", 0, "cert.pem", "key.pem"));
    EXPECT_EQ(log.countOf("TLS init failed: Failed to load certificate: cert.pem"), 1);
    ScriptedPeer peer(ScriptedPeer::silent());
    EXPECT_FALSE(agent_.start("127.0.0.1", peer.port(), "", ""));
    EXPECT_FALSE(agent_.start("999.0.0.1", 0, "", ""));
    agent_.setServicesFile(" /nowhere/at all ");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(agent_.start("127.0.0.1", 0, "", ""));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[McpBridge] Cannot load services file /nowhere/at all: Unable to open file\n");
}

} // namespace
