#include "core/io/ZnHttpClient.h"

#include "core/io/ScriptedPeer.h"
#include "core/io/ZnSslSocket.h"
#include "core/platform/ZnResolver.h"
#include "core/platform/ZnSocketError.h"
#include "support/LogCapture.h"
#include "support/LoopFixture.h"

#include <future>

struct ZnHttpClientTestPeer {
    static void expectResponse(ZnHttpClient& client, int method) {
        client.method_ = method;
        client.state_ = ZnHttpClient::State_::ReadingHead;
    }
    static void feed(ZnHttpClient& client, std::string_view bytes) { client.takeBytes_(bytes); }
    static void disconnect(ZnHttpClient& client) { client.onDisconnected_(); }
    static std::size_t bodyBytes(const ZnHttpClient& client) { return client.bodyBuffer_.size(); }
    static std::size_t bufferedBytes(const ZnHttpClient& client) { return client.rxBuffer_.size(); }
    static std::string requestHead(ZnHttpClient& client, int method, const char* url, const char* body,
                                   const char* contentType) {
        if (!ZnHttpClient::parseUrl_(url, &client.target_))
            return "refused";
        client.method_ = method;
        client.requestBody_ = ZnByteArray(std::string_view(body));
        client.contentType_ = contentType;
        return client.buildRequest_().str();
    }
};

namespace {

using Peer = ZnHttpClientTestPeer;

constexpr int kNothing = 1;  // no signal
constexpr int kFinished = 0; // otherwise the code of errorOccurred

/// Counts what a client emits.
struct Outcome {
    explicit Outcome(ZnHttpClient& client) {
        client.connect(&ZnHttpClient::finished, [this](const ZnByteArray& bytes) {
            ++signalCount;
            code = kFinished;
            body = bytes.toZnString().str();
        });
        client.connect(&ZnHttpClient::errorOccurred, [this](int errorCode) {
            ++signalCount;
            code = errorCode;
        });
    }
    int signalCount = 0;
    int code = kNothing;
    std::string body;
};

class ZnHttpClientTest : public LoopFixture {
protected:
    void TearDown() override { ZnResolver::setLookupForTests(nullptr); }
};

struct ResponseRow {
    const char* name;
    const char* response;
    int outcome;
    const char* body = "";
    int status = 0;
    int method = ZnHttpClient::Post;
    bool closes = false;
};
constexpr ResponseRow kResponses[] = {
    {"counted", "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nabcSURPLUS", kFinished, "abc", 200},
    {"empty", "HTTP/1.1 204 No Content\r\ncontent-length: 0\r\n\r\n", kFinished, "", 204},
    {"204 without a length", "HTTP/1.1 204 No Content\r\n\r\n", kNothing},
    {"HEAD", "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n", kFinished, "", 200, ZnHttpClient::Head},
    {"to the close", "HTTP/1.0 200 OK\r\n\r\nall of it", kFinished, "all of it", 200, ZnHttpClient::Get, true},
    {"negative length", "HTTP/1.0 200 OK\r\nContent-Length: -1\r\n\r\nx", kFinished, "x", 200, ZnHttpClient::Get, true},
    {"closed early", "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nabc", kNothing, "", 0, ZnHttpClient::Get, true},
    {"closed in the head", "HTTP/1.1 200 OK\r\n", kNothing, "", 0, ZnHttpClient::Get, true},
    {"chunks", "HTTP/1.1 200 OK\r\nTransfer-Encoding: Chunked\r\n\r\n3\r\nabc\r\nA;ext=1\r\n0123456789\r\n 0 \r\n", kFinished,
     "abc0123456789", 200},
    {"chunks beat the length", "HTTP/1.1 200 OK\r\ncontent-length: 0\r\ntransfer-encoding: chunked\r\n\r\n1\r\nx\r\n0\r\n",
     kFinished, "x", 200},
    {"closed in a chunk", "HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\n5\r\nabc", kNothing, "", 0,
     ZnHttpClient::Get, true},
    {"chunk size no number", "HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\nxyz\r\n", -4},
    {"chunk size empty", "HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\n;a\r\n", -4},
    {"chunk size negative", "HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\n-1\r\n", -4},
    {"chunk size with sign", "HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\n+1\r\nx\r\n", -4},
    {"chunk size too large", "HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\n7fffffffffffffff\r\n", -4},
    {"chunk size overflows", "HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\n10000000000000003\r\nabc\r\n", -4},
    {"chunk end missing", "HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\n3\r\nabcd\r\n", -5},
    {"status line without a reason", "\r\nHTTP/1.1 404\r\ncontent-length: 1\r\n\r\nx", kFinished, "x", 404},
    {"status no number", "HTTP/1.1 abc Fine\r\nno colon here\r\ncontent-length:1\r\n\r\nx", kFinished, "x", 0},
    {"interim head is final", "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\n\r\n", kFinished,
     "HTTP/1.1 200 OK\r\n\r\n", 100, ZnHttpClient::Get, true},
};

void expectOutcome(const ResponseRow& row, const std::vector<std::string_view>& pieces) {
    ZnHttpClient client;
    const Outcome outcome(client);
    Peer::expectResponse(client, row.method);
    for (const std::string_view piece : pieces)
        if (outcome.signalCount == 0)
            Peer::feed(client, piece);
    if (row.closes)
        Peer::disconnect(client);
    EXPECT_EQ(outcome.code, row.outcome);
    EXPECT_EQ(outcome.signalCount, row.outcome == kNothing ? 0 : 1);
    EXPECT_EQ(outcome.body, row.body);
    EXPECT_EQ(client.statusCode(), row.status);
}

TEST_F(ZnHttpClientTest, ResponsesAreTheSameInAnySplit) {
    LogCapture log;
    for (const ResponseRow& row : kResponses) {
        SCOPED_TRACE(row.name);
        const std::string_view response = row.response;
        std::vector<std::string_view> bytes;
        for (std::size_t i = 0; i < response.size(); ++i) {
            bytes.push_back(response.substr(i, 1));
            expectOutcome(row, {response.substr(0, i), response.substr(i)});
        }
        expectOutcome(row, bytes);
    }
}

TEST_F(ZnHttpClientTest, AnObserverSeesTheBodyGrowAndMayEndIt) {
    const std::string_view response =
        "HTTP/1.1 200 OK\r\nx: 1\r\ntransfer-encoding: chunked\r\n\r\n3\r\nabc\r\n4\r\nde!f\r\nno size";
    for (const char* act : {"finish", "abort", "delete"})
        for (std::size_t pieceBytes = 1; pieceBytes <= response.size(); ++pieceBytes) {
            SCOPED_TRACE(act);
            auto client = std::make_unique<ZnHttpClient>();
            const Outcome outcome(*client);
            std::string seen;
            client->setBodyObserver([&](const ZnMap<ZnString, ZnString>& headers, std::string_view bytes) {
                seen += headers.value("x") == "1" ? bytes : "no header";
                if (bytes.find('!') != std::string_view::npos && *act == 'a')
                    client->abort();
                if (seen.find('!') != std::string::npos && *act == 'd')
                    client.reset();
                return seen.find('!') != std::string::npos;
            });
            Peer::expectResponse(*client, ZnHttpClient::Post);
            for (std::size_t at = 0; at < response.size() && seen.find('!') == std::string::npos; at += pieceBytes)
                Peer::feed(*client, response.substr(at, pieceBytes));
            EXPECT_EQ(seen.substr(0, 6), "abcde!");
            EXPECT_EQ(outcome.code, *act == 'f' ? kFinished : kNothing);
            EXPECT_EQ(outcome.body, *act == 'f' ? seen : "");
        }
}

TEST_F(ZnHttpClientTest, TheLimitCoversHeadAndBody) {
    for (const auto& [response, code] :
         {std::pair{"\r\n\r\n12345678901234567890", kNothing}, {"\r\n\r\n123456789012345678901", -6}, {"\r\na: 678", -6},
          {"\r\ncontent-length: 21\r\n\r\n", -6}, {"\r\ncontent-length: 1\r\n\r\n12345678901234567890123", kFinished}}) {
        SCOPED_TRACE(response);
        ZnHttpClient client;
        client.setMaxResponseBytes(20);
        const Outcome outcome(client);
        Peer::expectResponse(client, ZnHttpClient::Get);
        Peer::feed(client, std::string("HTTP/1.1 200 OK") + response);
        EXPECT_EQ(outcome.code, code);
    }
}

TEST_F(ZnHttpClientTest, HeadersKeepTheirLastValue) {
    ZnHttpClient client;
    Peer::expectResponse(client, ZnHttpClient::Get);
    const std::string head = "HTTP/1.1 200  Very Fine \r\nX-A: 1\r\n x-a :\t2 \r\nMcp-Session-Id: s:1\r\ncontent-length: 1\r\n\r\n";
    Peer::feed(client, head + "b");
    EXPECT_EQ(client.reasonPhrase(), "Very Fine");
    EXPECT_EQ(client.rawHeaders(), head.c_str());
    EXPECT_EQ(client.responseHeaders().value("x-a"), "2");
    EXPECT_EQ(client.responseHeaders().value("mcp-session-id"), "s:1");
    EXPECT_EQ(client.takeBody().view(), "b");
    EXPECT_TRUE(client.body().isEmpty());
}

TEST_F(ZnHttpClientTest, BodiesAreNotBufferedTwice) {
    ZnHttpClient client;
    Peer::expectResponse(client, ZnHttpClient::Get);
    Peer::feed(client, "HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\n100000\r\nabc");
    EXPECT_EQ(Peer::bufferedBytes(client), 0u);
    LogCapture log;
    const Outcome outcome(client);
    Peer::feed(client, std::string(0x100000 - 3, 'x') + "\r\n" + std::string(9000, '1'));
    EXPECT_EQ(outcome.code, ZnHttpClient::kInvalidChunkSize) << "a size line without an end is not collected";
}

TEST_F(ZnHttpClientTest, RequestHeads) {
    struct Row {
        int method;
        const char* url;
        const char* body;
        const char* contentType;
        const char* head;
    };
    constexpr const char* kTail = "Connection: close\r\nAccept: */*\r\nUser-Agent: ZnHttpClient/1.0\r\n";
    const std::string get = std::string(kTail) + "\r\n";
    const auto post = [&](const char* content) { return std::string(kTail) + content + "\r\n"; };
    const std::string expected[] = {
        "GET /a?b=c#d HTTP/1.1\r\nHost: host:8080\r\n" + get,
        "GET / HTTP/1.1\r\nHost: host\r\n" + get,
        "GET / HTTP/1.1\r\nHost: Host\r\n" + get,
        "GET / HTTP/1.1\r\nHost: host:80\r\n" + get,
        "POST /x HTTP/1.1\r\nHost: host\r\n" + post("Content-Type: application/octet-stream\r\nContent-Length: 0\r\n"),
        "DELETE /x HTTP/1.1\r\nHost: host\r\n" + post("Content-Type: text/plain\r\nContent-Length: 2\r\n"),
    };
    const Row rows[] = {
        {ZnHttpClient::Get, "http://host:8080/a?b=c#d", "", "", expected[0].c_str()},
        {99, "HTTPS://host:443", "", "", expected[1].c_str()},
        {ZnHttpClient::Get, "hTTp://Host/", "", "", expected[2].c_str()},
        {ZnHttpClient::Get, "https://host:80/", "", "", expected[3].c_str()},
        {ZnHttpClient::Post, "http://host/x", "", "", expected[4].c_str()},
        {ZnHttpClient::Delete, "http://host:80/x", "ab", "text/plain", expected[5].c_str()},
        {ZnHttpClient::Get, "ftp://host/", "", "", "refused"},
        {ZnHttpClient::Get, "http:/host/", "", "", "refused"},
        {ZnHttpClient::Get, "http://", "", "", "refused"},
        {ZnHttpClient::Get, "http://:80/", "", "", "refused"},
        {ZnHttpClient::Get, "http://host:0/", "", "", "refused"},
        {ZnHttpClient::Get, "http://host:70000/", "", "", "refused"},
        {ZnHttpClient::Get, "http://host:/", "", "", "refused"},
        {ZnHttpClient::Get, "http://[::1]/", "", "", "refused"},
        {ZnHttpClient::Get, "http://localhost a/", "", "", "refused"},
        {ZnHttpClient::Get, "http://host/a b", "", "", "refused"},
        {ZnHttpClient::Get, "http://host/\r\nX: y", "", "", "refused"},
        {ZnHttpClient::Get, "http://host\n/", "", "", "refused"},
    };
    LogCapture log;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.url);
        ZnHttpClient client;
        EXPECT_EQ(Peer::requestHead(client, row.method, row.url, row.body, row.contentType), row.head);
    }
}

TEST_F(ZnHttpClientTest, CallersHeadersReplaceTheDefaults) {
    ZnHttpClient client;
    EXPECT_TRUE(client.setHeader("ACCEPT", "a/b"));
    EXPECT_TRUE(client.setHeader(" host ", "other"));
    EXPECT_TRUE(client.setHeader("content-LENGTH", "7"));
    EXPECT_FALSE(client.setHeader("", "x"));
    EXPECT_FALSE(client.setHeader("Two Words", "x"));
    EXPECT_FALSE(client.setHeader("Colon:", "x"));
    EXPECT_FALSE(client.setHeader("X", "a\r\nY: b"));
    EXPECT_FALSE(client.setHeader("X", ZnString("a\0b", 3)));
    EXPECT_EQ(Peer::requestHead(client, ZnHttpClient::Put, "http://host/", "", "t/t"),
              "PUT / HTTP/1.1\r\nACCEPT: a/b\r\ncontent-LENGTH: 7\r\nhost: other\r\nConnection: close\r\n"
              "User-Agent: ZnHttpClient/1.0\r\nContent-Type: t/t\r\n\r\n");
}

TEST_F(ZnHttpClientTest, RequestAndAnswerCrossTheWire) {
    std::promise<std::string> received;
    ScriptedPeer peer([&](ScriptedPeer::Connection& connection) {
        received.set_value(connection.receiveRequest());
        connection.send("HTTP/1.1 201 Created\r\nContent-Length: 2\r\n\r\n{}");
        connection.waitForClose();
    });
    ZnHttpClient client;
    const Outcome outcome(client);
    runOnFiber([&] {
        EXPECT_TRUE(client.request(ZnHttpClient::Post, peer.url("/p"), ZnByteArray(std::string_view("[1]")), "a/b"));
    });
    ASSERT_TRUE(runUntil([&] { return outcome.signalCount > 0; }));
    EXPECT_EQ(outcome.body, "{}");
    EXPECT_EQ(client.statusCode(), 201);
    EXPECT_EQ(received.get_future().get(),
              "POST /p HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(peer.port()) +
                  "\r\nConnection: close\r\nAccept: */*\r\nUser-Agent: ZnHttpClient/1.0\r\n"
                  "Content-Type: a/b\r\nContent-Length: 3\r\n\r\n[1]");
}

TEST_F(ZnHttpClientTest, ALargeBodyUpToTheCloseArrivesWhole) {
    const std::string first(std::size_t(8) << 20, 'y'); // widens the system's receive buffer
    const std::string second(500000, 'z');
    std::promise<void> goOn;
    std::promise<void> isSent;
    ScriptedPeer peer([&](ScriptedPeer::Connection& connection) {
        connection.receiveRequest();
        connection.send("HTTP/1.1 200 OK\r\n\r\n" + first);
        goOn.get_future().wait();
        connection.send(second);
        connection.finish();
        isSent.set_value();
    });
    ZnHttpClient client;
    const Outcome outcome(client);
    runOnFiber([&] { client.request(ZnHttpClient::Get, peer.url(), {}, {}); });
    ASSERT_TRUE(runUntil([&] { return Peer::bodyBytes(client) == first.size(); }));
    goOn.set_value();
    isSent.get_future().wait_for(std::chrono::seconds(1)); // the end stands behind bytes that nobody has read yet
    ASSERT_TRUE(runUntil([&] { return outcome.signalCount > 0; }));
    EXPECT_EQ(outcome.body.size(), first.size() + second.size());
    EXPECT_TRUE(outcome.body == first + second);
}

TEST_F(ZnHttpClientTest, EveryFailureIsOneSignal) {
    LogCapture log;
    unsigned short closedPort = 0;
    {
        const ScriptedPeer gone(ScriptedPeer::silent());
        closedPort = gone.port();
    }
    ScriptedPeer resetting([](ScriptedPeer::Connection& connection) {
        connection.receiveRequest();
        connection.resetAtEnd();
    });
    ZnResolver::setLookupForTests([](const ZnString&) { return ZnResolver::Result(); });
    struct Row {
        std::string url;
        const char* contentType;
        int code;
    };
    ScriptedPeer noTls([](ScriptedPeer::Connection& connection) {
        connection.send("HTTP/1.1 400 Bad Request\r\n\r\n");
        connection.waitForClose();
    });
    const Row rows[] = {
        {"ftp://host/", "", ZnHttpClient::kUrlNotAccepted},
        {"https" + noTls.url().substr(4), "", ZnSslSocket::kHandshakeFailed},
        {resetting.url(), "a/b\r\nX: y", ZnHttpClient::kConnectNotBegun},
        {"http://127.0.0.1:" + std::to_string(closedPort) + "/", "", ZnSocketError::kConnectionRefused},
        {"http://name.test/", "", ZnSocketError::kHostNotFound},
        {resetting.url(), "", ZnSocketError::kConnectionReset},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.url);
        ZnHttpClient client;
        const Outcome outcome(client);
        runOnFiber([&] { client.request(ZnHttpClient::Post, row.url, {}, row.contentType); });
        ASSERT_TRUE(runUntil([&] { return outcome.signalCount > 0; }));
        settle();
        EXPECT_EQ(outcome.code, row.code);
        EXPECT_EQ(outcome.signalCount, 1);
        EXPECT_EQ(client.statusCode(), 0);
    }
    EXPECT_EQ(log.countOf("[ZnHttpClient] TLS error: [ZnSslSocket] OpenSSL handshake failed: "), 1);
}

TEST_F(ZnHttpClientTest, AbortIsSilentAndClosesTheConnection) {
    std::promise<void> accepted;
    std::promise<void> closed;
    ScriptedPeer peer([&](ScriptedPeer::Connection& connection) {
        accepted.set_value();
        connection.waitForClose();
        closed.set_value();
    });
    ZnHttpClient client;
    const Outcome outcome(client);
    runOnFiber([&] { client.request(ZnHttpClient::Get, peer.url(), {}, {}); });
    accepted.get_future().wait();
    client.abort();
    EXPECT_EQ(closed.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    settle();
    EXPECT_EQ(outcome.signalCount, 0);
}

TEST_F(ZnHttpClientTest, ASlotMayDeleteTheClientOrUseItAgain) {
    ScriptedPeer peer(ScriptedPeer::answering("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody"));
    auto* client = new ZnHttpClient;
    int signalCount = 0;
    client->connect(&ZnHttpClient::finished, [&](const ZnByteArray&) {
        if (++signalCount == 1)
            client->request(ZnHttpClient::Get, peer.url(), {}, {});
        else if (signalCount == 2)
            client->request(ZnHttpClient::Get, "no url", {}, {});
    });
    client->connect(&ZnHttpClient::errorOccurred, [&] { delete std::exchange(client, nullptr); });
    std::string seenLast;
    client->connect(&ZnHttpClient::finished, [&](const ZnByteArray& body) { seenLast = body.toZnString().str(); });
    runOnFiber([&] { client->request(ZnHttpClient::Get, peer.url(), {}, {}); });
    ASSERT_TRUE(runUntil([&] { return client == nullptr; }));
    settle();
    EXPECT_EQ(signalCount, 2);
    EXPECT_EQ(seenLast, "body");
}

TEST_F(ZnHttpClientTest, EndsCleanlyWhileANameIsResolved) {
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    ZnResolver::setLookupForTests([released](const ZnString&) {
        released.wait();
        return ZnResolver::Result{ZnSocketAddress::fromNumeric("127.0.0.1", 0)};
    });
    for (const bool deletes : {false, true}) {
        SCOPED_TRACE(deletes ? "deleted" : "aborted");
        auto client = std::make_unique<ZnHttpClient>();
        const Outcome outcome(*client);
        int returned = -1;
        ASSERT_TRUE(application_.postEvent(
            [&] { returned = client->request(ZnHttpClient::Get, "http://slow.test/", {}, {}) ? 1 : 0; }));
        ASSERT_TRUE(runUntil([&] { return parkedCount() == 1; }));
        runOnFiber([&] {
            if (deletes)
                client.reset();
            else
                client->abort();
        });
        EXPECT_TRUE(runUntil([&] { return returned == 0; })) << "request() returns without waiting for the name";
        EXPECT_EQ(outcome.signalCount, 0);
    }
    release.set_value();
}

} // namespace
