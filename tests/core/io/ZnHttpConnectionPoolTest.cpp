#include "core/io/ZnHttpConnectionPool.h"

#include "core/io/ScriptedPeer.h"
#include "core/io/TlsPeers.h"
#include "core/io/ZnHttpClient.h"
#include "core/io/ZnSslServer.h"
#include "core/io/http1/ZnHttpKeepAlive_.h"
#include "core/platform/ZnSocketError.h"
#include "support/LogCapture.h"
#include "support/LoopFixture.h"

#include <future>

namespace {

#define OK_HEAD "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n"
constexpr const char* kAnswer = OK_HEAD "\r\nbody";

class ZnHttpConnectionPoolTest : public LoopFixture {
protected:
    using Connection = ScriptedPeer::Connection;

    struct Result {
        int code = 1; // 0: finished, else that of errorOccurred
        std::string body;
    };
    Result call(const std::string& url, const char* partition = "", int method = ZnHttpClient::Post,
                const ZnString& caFile = {}) {
        ZnHttpClient client;
        client.setConnectionPool(&pool_, partition);
        client.setCaFile(caFile);
        Result result;
        int signalCount = 0;
        client.connect(&ZnHttpClient::finished, [&](const ZnByteArray& body) {
            ++signalCount;
            result = {0, body.toZnString().str()};
        });
        client.connect(&ZnHttpClient::errorOccurred, [&](int code) {
            ++signalCount;
            result = {code, {}};
        });
        runOnFiber([&] { client.request(method, url, ZnByteArray(std::string_view("[1]")), "a/b"); });
        EXPECT_TRUE(runUntil([&] { return signalCount > 0; }));
        settle(0);
        EXPECT_EQ(signalCount, 1);
        return result;
    }
    /// Answers every request in the same way, for as long as the client does not close.
    static ScriptedPeer::Script serving(std::string answer) {
        return [answer](Connection& connection) {
            while (!connection.receiveRequest().empty())
                connection.send(answer);
        };
    }
    /// The descriptor of the client's end of a connection to that port.
    static int clientEnd(unsigned short port) {
        for (int descriptor = 0; descriptor < 1024; ++descriptor) {
            sockaddr_in address{};
            socklen_t bytes = sizeof(address);
            if (::getpeername(descriptor, reinterpret_cast<sockaddr*>(&address), &bytes) == 0 &&
                ntohs(address.sin_port) == port)
                return descriptor;
        }
        return -1;
    }

    ZnHttpConnectionPool pool_;
};

TEST_F(ZnHttpConnectionPoolTest, OnlyAnAnswerWhoseEndIsBeyondDoubtKeepsItsConnection) {
    constexpr const char* kChunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    const struct {
        std::string answer;
        bool isKept;
        const char* body = "body";
        int method = ZnHttpClient::Post;
    } kRows[] = {
        {kAnswer, true},
        {OK_HEAD "Connection: Keep-Alive\r\nKeep-Alive: timeout=5, max=9\r\n\r\nbody", true},
        {std::string(kChunked) + "4;a=b\r\nbody\r\n0\r\n\r\n", true},
        {"HTTP/1.1 204 No Content\r\n\r\n", true, ""},
        {"HTTP/1.1 205 Reset Content\r\nContent-Length: 0\r\n\r\n", true, ""},
        {"HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\n", true, "", ZnHttpClient::Head},
        // One of the two wants it closed.
        {OK_HEAD "Connection: close\r\n\r\nbody", false},
        {OK_HEAD "Connection: keep-alive\r\nConnection: Close\r\n\r\nbody", false},
        {OK_HEAD "Connection: keep-alive, close\r\n\r\nbody", false},
        {OK_HEAD "Keep-Alive: timeout=1\r\n\r\nbody", false},
        {"HTTP/1.0 200 OK\r\nConnection: keep-alive\r\nContent-Length: 4\r\n\r\nbody", false},
        // More than the answer.
        {std::string(kAnswer) + "\r\n", false},
        {std::string(kAnswer) + kAnswer, false},
        {"HTTP/1.1 204 No Content\r\n\r\nbody", false, ""},
        {OK_HEAD "\r\nbody", false, "", ZnHttpClient::Head},
        {std::string(kChunked) + "4\r\nbody\r\n0\r\n\r\nx", false},
        {"HTTP/1.1 100 Continue\r\n\r\n" + std::string(kAnswer), false},
        // Another reader might see another end.
        {OK_HEAD "Content-Length: 4\r\n\r\nbody", false},
        {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\nContent-Length: 4\r\n\r\nbody", false},
        {OK_HEAD "Transfer-Encoding: chunked\r\n\r\n4\r\nbody\r\n0\r\n\r\n", false},
        {OK_HEAD "Transfer-Encoding: identity\r\n\r\nbody", false},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\n\r\n4\r\nbody\r\n0\r\n\r\n", false},
        {"HTTP/1.1 200 OK\r\nContent-Length: +4\r\n\r\nbody", false},
        {"HTTP/1.1 200 OK\r\nContent-Length : 4\r\n\r\nbody", false},
        {OK_HEAD "X: a\nContent-Length: 7\r\n\r\nbody", false},
        {OK_HEAD " folded\r\n\r\nbody", false},
        {"HTTP/1.1 204 No Content\r\nContent-Length: 4\r\n\r\n", false, ""},
        {"HTTP/1.1 205 Reset Content\r\nContent-Length: 4\r\n\r\n", false, ""},
        {"HTTP/1.1 2000 OK\r\nContent-Length: 4\r\n\r\nbody", false},
        {"\r\n" + std::string(kAnswer), false},
        {std::string(kChunked) + "4\r\nbody\r\n0\r\n", false},
        {std::string(kChunked) + "4\r\nbody\r\n0\r\nX: y\r\n\r\n", false},
        {std::string(kChunked) + "4 \r\nbody\r\n0\r\n\r\n", false},
        {std::string(kChunked) + "4;a\nb\r\nbody\r\n0\r\n\r\n", false},
    };
    for (const auto& [answer, isKept, body, method] : kRows) {
        SCOPED_TRACE(answer);
        ScriptedPeer peer(serving(answer));
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(call(peer.url(), "", method).body, body);
        EXPECT_EQ(peer.connectionCount(), isKept ? 1 : 2);
        EXPECT_EQ(pool_.idleCount(), isKept ? 1U : 0U);
        pool_.closeIdle();
    }
}

TEST(ZnHttpKeepAlive, TheServersLimitCountsLessASecond) {
    const std::pair<const char*, int> kRows[] = {
        {"timeout=5", 4000},   {"max=3, Timeout=2", 1000}, {"timeout=9, timeout=3", 2000},
        {"timeout=0", 0},      {"timeout=31", 30000},      {"timeout=99999999999999999999", 30000},
        {"timeout=-5", 30000}, {"timeout=", 30000},        {"timeout=soon", 30000},
    };
    for (const auto& [value, ms] : kRows)
        EXPECT_EQ(zn::http::keepAliveMs(OK_HEAD "keep-alive: " + std::string(value) + "\r\n\r\n", false, 30000), ms)
            << value;
}

// What comes in idle is never given to a request, whether the loop has seen it or not.
TEST_F(ZnHttpConnectionPoolTest, WhateverComesInIdleEndsTheConnection) {
    for (const char* idle : {"HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nevil", "x", "end", "reset"}) {
        for (const bool isSeen : {true, false}) {
            SCOPED_TRACE(std::string(idle) + (isSeen ? ", seen" : ""));
            std::promise<void> next;
            std::promise<void> done;
            std::atomic<int> count{0};
            ScriptedPeer peer([&](Connection& connection) {
                const bool isFirst = ++count == 1;
                connection.receiveRequest();
                connection.send(kAnswer);
                if (!isFirst)
                    return connection.waitForClose();
                next.get_future().wait();
                if (std::string(idle) == "reset")
                    connection.resetAtEnd();
                else if (std::string(idle) != "end")
                    connection.send(idle);
                done.set_value();
                if (std::string(idle).size() > 5 || *idle == 'x')
                    connection.waitForClose();
            });
            EXPECT_EQ(call(peer.url()).body, "body");
            EXPECT_EQ(pool_.idleCount(), 1U);
            next.set_value();
            done.get_future().wait();
            ::usleep(10000); // the end follows `done`
            if (isSeen) {
                EXPECT_TRUE(runUntil([&] { return pool_.idleCount() == 0; }));
            }
            EXPECT_EQ(call(peer.url()).body, "body");
            EXPECT_EQ(peer.connectionCount(), 2);
            pool_.closeIdle();
        }
    }
}

// Such a request may have been acted on: it is not repeated.
TEST_F(ZnHttpConnectionPoolTest, AKeptConnectionThatEndsInTheAnswerIsReported) {
    const std::string answer = kAnswer;
    for (std::size_t bytes = 0; bytes <= answer.size(); ++bytes) {
        for (const bool isReset : {false, true}) {
            SCOPED_TRACE(std::to_string(bytes) + (isReset ? ", reset" : ""));
            std::atomic<int> requestCount{0};
            ScriptedPeer peer([&](Connection& connection) {
                connection.receiveRequest();
                connection.send(answer);
                requestCount += connection.receiveRequest().empty() ? 0 : 1;
                connection.send(answer.substr(0, bytes));
                if (isReset && bytes == 0)
                    connection.resetAtEnd();
            });
            EXPECT_EQ(call(peer.url()).code, 0);
            const Result second = call(peer.url());
            const int failure = isReset && bytes == 0 ? ZnSocketError::kConnectionReset : ZnHttpClient::kClosedEarly;
            EXPECT_EQ(second.code, bytes == answer.size() ? 0 : failure);
            EXPECT_EQ(requestCount, 1);
            EXPECT_EQ(peer.connectionCount(), 1);
            pool_.closeIdle();
        }
    }
}

TEST_F(ZnHttpConnectionPoolTest, ARequestOfWhichNothingHasLeftIsRepeated) {
    std::promise<void> end;
    const std::shared_future<void> ended = end.get_future().share();
    std::atomic<int> count{0};
    std::string second;
    ScriptedPeer peer([&](Connection& connection) {
        const bool isFirst = ++count == 1;
        const std::string request = connection.receiveRequest();
        if (!isFirst)
            second = request;
        connection.send(kAnswer);
        ended.wait();
    });
    EXPECT_EQ(call(peer.url()).body, "body");
    // A write fails, and nothing has told so.
    ASSERT_EQ(::shutdown(clientEnd(peer.port()), SHUT_WR), 0);
    EXPECT_EQ(call(peer.url("/again")).body, "body");
    EXPECT_EQ(peer.connectionCount(), 2);
    end.set_value();
    EXPECT_TRUE(second.starts_with("POST /again HTTP/1.1\r\nHost: ")) << second;
    EXPECT_TRUE(second.ends_with("\r\nContent-Length: 3\r\n\r\n[1]")) << second;
    EXPECT_EQ(second.find("Connection:"), std::string::npos);
}

TEST_F(ZnHttpConnectionPoolTest, KeepsPartitionsApartAndItsBounds) {
    pool_.setMaxIdlePerKey(2);
    ScriptedPeer peer(serving(kAnswer));
    for (const char* partition : {"a", "b", "a", "b"})
        call(peer.url(), partition);
    EXPECT_EQ(peer.connectionCount(), 2);
    std::vector<std::unique_ptr<ZnHttpClient>> clients;
    int finishedCount = 0;
    for (int i = 0; i < 5; ++i) {
        clients.push_back(std::make_unique<ZnHttpClient>());
        clients.back()->setConnectionPool(&pool_, "a");
        clients.back()->connect(&ZnHttpClient::finished, [&] { ++finishedCount; });
        runOnFiber([&] { clients.back()->request(ZnHttpClient::Get, peer.url(), {}, {}); });
    }
    EXPECT_TRUE(runUntil([&] { return finishedCount == 5; }));
    EXPECT_EQ(pool_.idleCount(), 3U); // two of "a", one of "b"
    pool_.closeIdle();
    pool_.setMaxIdleMs(300);
    call(peer.url());
    EXPECT_EQ(pool_.idleCount(), 1U);
    EXPECT_TRUE(runUntil([&] { return pool_.idleCount() == 0; }));
    pool_.stop();
    call(peer.url());
    EXPECT_EQ(pool_.idleCount(), 0U);
}

TEST_F(ZnHttpConnectionPoolTest, AnAnswerThatIsNotTakenWholeOrComesEarlyEndsTheConnection) {
    const std::string large(std::size_t(8) << 20, 'x');
    std::atomic<int> count{0};
    ScriptedPeer peer([&](Connection& connection) {
        if (++count == 1)
            connection.send(kAnswer); // and the request is not read
        else
            connection.receiveRequest();
        if (count == 2)
            connection.send("HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\nbody");
        connection.waitForClose();
    });
    for (int i = 0; i < 2; ++i) {
        ZnHttpClient client;
        client.setConnectionPool(&pool_, {});
        client.setBodyObserver([](const ZnMap<ZnString, ZnString>&, std::string_view) { return true; });
        bool isFinished = false;
        client.connect(&ZnHttpClient::finished, [&] { isFinished = true; });
        runOnFiber([&] { client.request(ZnHttpClient::Post, peer.url(), ZnByteArray(i == 0 ? large : "x"), {}); });
        EXPECT_TRUE(runUntil([&] { return isFinished; }));
        EXPECT_EQ(pool_.idleCount(), 0U);
    }
}

// --- TLS

TEST_F(ZnHttpConnectionPoolTest, SessionsAreTakenUpWithTheSameTrustAlone) {
    LogCapture log;
    const TlsFiles& files = TlsFiles::instance();
    TemporaryDirectory directory;
    const ZnString caFile = directory.path("authority.pem");
    directory.file("authority.pem", contentOf(files.path("ca.pem")));
    for (const char* version : {"-tls1_3", "-tls1_2"}) {
        SCOPED_TRACE(version);
        OpensslProgram server({"s_server", "-4", "-www", version, "-accept", "0", "-cert", files.path("good.pem").str(),
                               "-key", files.path("good.key").str()});
        const std::string url = "https://localhost:" + std::to_string(server.port()) + "/";
        const auto isTakenUp = [&](const char* partition) {
            const Result result = call(url, partition, ZnHttpClient::Get, caFile);
            EXPECT_EQ(result.code, 0);
            return result.body.find("Reused, TLSv1") != std::string::npos;
        };
        EXPECT_FALSE(isTakenUp("a"));
        bool isTaken = false; // once the authorities have not been changed for a while
        for (int i = 0; i < 100 && !isTaken; ++i) {
            settle(50);
            isTaken = isTakenUp("a");
        }
        EXPECT_TRUE(isTaken);
        EXPECT_TRUE(isTakenUp("a")); // with what that one brought
        EXPECT_FALSE(isTakenUp("b"));
        directory.file("authority.pem", contentOf(files.path("otherca.pem")));
        EXPECT_EQ(call(url, "a", ZnHttpClient::Get, caFile).code, ZnSslSocket::kHandshakeFailed);
        directory.file("authority.pem", contentOf(files.path("ca.pem")));
        EXPECT_FALSE(isTakenUp("a"));
    }
}

TEST_F(ZnHttpConnectionPoolTest, TlsConnectionsAreKeptUntilTheirTrustChanges) {
    LogCapture log;
    const TlsFiles& files = TlsFiles::instance();
    TemporaryDirectory directory;
    const ZnString caFile = directory.path("authority.pem");
    directory.file("authority.pem", contentOf(files.path("ca.pem")));
    ZnSslServer server;
    int connectionCount = 0;
    std::string afterAnswer;
    server.connect(&ZnTcpServer::newConnection, &server, [&] {
        ++connectionCount;
        ZnTcpSocket* socket = server.nextPendingConnection();
        socket->setParent(&server);
        socket->connect(&ZnIODevice::readyRead, socket, [socket, &afterAnswer] {
            while (!socket->read(0).isEmpty()) {
            }
            socket->write(ZnString(kAnswer) + ZnString(afterAnswer));
        });
    });
    ASSERT_TRUE(server.reloadLocalCredentials({{{}, files.path("good.pem"), files.path("good.key"), true}}));
    ASSERT_TRUE(server.listen("127.0.0.1", 0));
    const std::string url = "https://localhost:" + std::to_string(server.localPort()) + "/";
    const auto callOnce = [&] { return call(url, "", ZnHttpClient::Post, caFile); };
    for (int i = 0; i < 100; ++i) { // until the authorities have not been changed for a while
        callOnce();
        const int before = connectionCount;
        settle(50);
        callOnce();
        if (connectionCount == before && i > 20)
            break;
    }
    const int before = connectionCount;
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(callOnce().body, "body");
    EXPECT_EQ(connectionCount, before);
    afterAnswer = kAnswer; // of which nothing reaches a request
    EXPECT_EQ(callOnce().body, "body");
    EXPECT_EQ(pool_.idleCount(), 0U);
    afterAnswer.clear();
    EXPECT_EQ(callOnce().body, "body");
    EXPECT_EQ(pool_.idleCount(), 1U);
    directory.file("authority.pem", contentOf(files.path("otherca.pem")));
    settle(ZnHttpConnectionPool::kTrustCheckMs + 100);
    EXPECT_EQ(callOnce().code, ZnSslSocket::kHandshakeFailed);
}

} // namespace
