#include "core/fs/TemporaryDirectory.h"
#include "core/io/RawTlsClient.h"
#include "core/io/TlsPeers.h"
#include "core/io/ZnTcpSocket.h"
#include "core/io/http/ZnHttpApp.h"
#include "core/runtime/ZnEventLoop.h"
#include "core/runtime/ZnThreadPool.h"
#include "core/runtime/ZnTimer.h"
#include "support/HttpReader.h"
#include "support/LoopFixture.h"

#include <algorithm>
#include <stdexcept>
#include <thread>

namespace {

std::string getOf(const std::string& path) {
    return "GET " + path + " HTTP/1.1\r\n\r\n";
}

/// The client's end of a real connection.
struct Client {
    explicit Client(unsigned short port) {
        socket.connect(&ZnIODevice::readyRead, [this] {
            for (ZnString bytes = socket.read(0); !bytes.isEmpty(); bytes = socket.read(0))
                received += bytes.view();
        });
        socket.connectToHost("127.0.0.1", port);
    }
    std::size_t answerCount() const {
        std::size_t count = 0;
        for (std::size_t at = 0; (at = received.find("HTTP/1.1 ", at)) != std::string::npos; ++at)
            ++count;
        return count;
    }
    bool isGone() const { return socket.state() == SocketState::Unconnected; }

    ZnTcpSocket socket;
    std::string received;
};

/// Sends `input`, closes the sending side and reads to the end. Blocks, so it needs a thread of its own.
std::string exchangeHalfClosed(unsigned short port, bool isTls, const std::string& input) {
    if (isTls) {
        RawTlsClient client(port);
        SSL_write(client.ssl(), input.data(), static_cast<int>(input.size()));
        EXPECT_EQ(SSL_shutdown(client.ssl()), 0);
        ::shutdown(client.descriptor(), SHUT_WR);
        return client.readAll();
    }
    const int descriptor = connectToLoopback(port);
    ::send(descriptor, input.data(), input.size(), MSG_NOSIGNAL);
    ::shutdown(descriptor, SHUT_WR);
    const std::string received = receiveAll(descriptor);
    ::close(descriptor);
    return received;
}

class ZnHttpServerTest : public LoopFixture {
protected:
    void SetUp() override {
        app_->get("/echo/:word", [this](ZnHttpContext& context) {
            EXPECT_EQ(std::this_thread::get_id(), loopThread_);
            context.text(context.pathParam("word"));
        });
        app_->post("/body", [](ZnHttpContext& context) { context.send(context.request().body, "x/y"); });
        app_->get("/peer", [this](ZnHttpContext& context) {
            EXPECT_NE(context.request().peerPort, 0);
            EXPECT_EQ(context.request().localPort, port_);
            context.text(context.request().peerAddress);
        });
        app_->get("/throw", [](ZnHttpContext&) { throw std::runtime_error("secret"); });
        app_->get("/park", [this](ZnHttpContext& context) {
            ++parkedHandlers_;
            ZnEventLoop loop;
            loops_.push_back(&loop);
            loop.exec(10000);
            ++returnedHandlers_;
            context.text(context.request().path);
        });
        ASSERT_TRUE(app_->tcpServer().listen("127.0.0.1", 0));
        port_ = app_->tcpServer().localPort();
    }
    /// A connection that has sent `input`.
    std::unique_ptr<Client> send(const std::string& input) {
        auto client = std::make_unique<Client>(port_);
        EXPECT_TRUE(runUntil([&] { return client->socket.isOpen(); }));
        client->socket.write(ZnString(input));
        return client;
    }
    std::unique_ptr<Client> sendGet(const std::string& path) { return send(getOf(path)); }
    std::string firstAnswer(const std::string& path) {
        const auto client = sendGet(path);
        EXPECT_TRUE(runUntil([&] { return client->answerCount() == 1; }));
        return client->received;
    }
    /// Whether the peer gets to its end, however long the thread takes on which it is played.
    template <typename T>
    T resultOf(std::future<T> future) {
        EXPECT_TRUE(pollUntil([&] { return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
        return future.get();
    }
    void expectAnswer(const std::string& path, const std::string& status, const std::string& part,
                      const std::string& body) {
        const std::string answer = firstAnswer(path);
        EXPECT_TRUE(answer.starts_with("HTTP/1.1 " + status + "\r\n")) << answer;
        EXPECT_NE(answer.find(part), std::string::npos) << answer;
        EXPECT_TRUE(answer.ends_with("\r\n\r\n" + body)) << answer;
    }
    void releaseHandlers() {
        for (ZnEventLoop* loop : std::exchange(loops_, {}))
            loop->quit();
    }

    const std::thread::id loopThread_ = std::this_thread::get_id();
    std::unique_ptr<ZnHttpApp> app_ = std::make_unique<ZnHttpApp>();
    unsigned short port_ = 0;
    std::vector<ZnEventLoop*> loops_;
    int parkedHandlers_ = 0;
    int returnedHandlers_ = 0;
};

TEST_F(ZnHttpServerTest, AppAnswers) {
    expectAnswer("/echo/hello", "200 OK", "\r\nconnection: keep-alive\r\n", "hello");
    expectAnswer("/peer", "200 OK", "\r\nconnection: keep-alive\r\n", "127.0.0.1");
    expectAnswer("/throw", "500 Internal Server Error", "\r\nconnection: close\r\n", "Internal Server Error");
    expectAnswer("/unknown", "404 Not Found", "\r\nconnection: keep-alive\r\n", "Not Found");
    expectAnswer("/body", "405 Method Not Allowed", "\r\nallow: POST\r\n", "Method Not Allowed");
    const auto posted = send("POST /body HTTP/1.1\r\ncontent-length: 3\r\n\r\na\nb");
    ASSERT_TRUE(runUntil([&] { return posted->received.ends_with("\r\n\r\na\nb"); }));
    posted->socket.close();
    const ZnHttpServerStats stats = app_->stats();
    EXPECT_EQ(stats.requestsStarted, 6);
    EXPECT_EQ(stats.responsesFinished, 6);
    EXPECT_EQ(stats.bytesIn, 3);
    EXPECT_EQ(stats.bytesOut, 65); // of the bodies
    EXPECT_EQ(stats.inFlight, 0);
    EXPECT_EQ(stats.statusCounts.value("200"), 3U);
    EXPECT_TRUE(runUntil([&] { return app_->activeSessionCount() == 0; }));
}

// Every way to lose the connection under a parked handler; the address sanitizer is the judge.
TEST_F(ZnHttpServerTest, AParkedHandlerOutlivesClientSessionAndServer) {
    const auto client = send("GET /park HTTP/1.1\r\n\r\nGET /echo/second HTTP/1.1\r\n\r\n");
    const auto leaving = sendGet("/park");
    const auto stopped = sendGet("/park");
    ASSERT_TRUE(runUntil([&] { return parkedHandlers_ == 3; }));
    EXPECT_TRUE(firstAnswer("/echo/meanwhile").ends_with("meanwhile"));
    leaving->socket.close();
    settle();
    EXPECT_EQ(client->received, ""); // one at a time
    loops_.front()->quit();
    loops_.erase(loops_.begin());
    ASSERT_TRUE(runUntil([&] { return client->received.ends_with("second"); }));
    EXPECT_LT(client->received.find("/park"), client->received.find("second"));

    app_->stop();
    EXPECT_EQ(app_->activeSessionCount(), 0U);
    ASSERT_TRUE(runUntil([&] { return stopped->isGone() && client->isGone(); }));
    EXPECT_EQ(app_->stats().inFlight, 2);
    app_.reset();
    releaseHandlers();
    ASSERT_TRUE(runUntil([&] { return returnedHandlers_ == 3; }));
    settle();
    EXPECT_EQ(stopped->received, "");
}

TEST_F(ZnHttpServerTest, APeerThatHasClosedItsSideGetsTheAnswersThatAreDue) {
    const TemporaryDirectory directory;
    const std::string content(20 << 20, 'x');
    const ZnString file = directory.file("f", content);
    app_->get("/file", [&](ZnHttpContext& context) {
        context.send({}, "x/y");
        context.response().useFile = true;
        context.response().filePath = file;
        context.response().fileLength = content.size();
    });
    app_->get("/slow", [](ZnHttpContext& context) { ZnEventLoop().exec(100), context.text("slow"); });
    app_->router().addAsyncRoute("GET", "/async", [](const auto&, const ZnHttpResponseCallback& answer) {
        ZnTimer::singleShot(100, [answer] { answer(ZnHttpResponse::text(200, "async")); });
    });
    const TlsFiles& files = TlsFiles::instance();
    ASSERT_TRUE(app_->sslServer().reloadLocalCredentials({{{}, files.path("good.pem"), files.path("good.key"), true}}));
    ASSERT_TRUE(app_->sslServer().listen("127.0.0.1", 0));
    const std::string slow = getOf("/slow"), async = getOf("/async"), fileGet = getOf("/file");
    const std::pair<std::string, std::vector<std::string_view>> kRows[] = {
        {slow + async + slow, {"slow", "async", "slow"}},
        {async + fileGet + "GET /echo/half HTTP/1.1\r\n", {"async", content}},
        {"GET\r\n\r\n", {"Malformed request line"}},
        {"POST /body HTTP/1.1\r\ncontent-length: 9\r\n\r\nhalf", {}}};
    for (const bool isTls : {false, true}) {
        for (const auto& [input, bodies] : kRows) {
            SCOPED_TRACE(input + (isTls ? " over TLS" : ""));
            const unsigned short port = isTls ? app_->sslServer().localPort() : port_;
            const std::string received =
                resultOf(std::async(std::launch::async, exchangeHalfClosed, port, isTls, input));
            std::string_view rest = received;
            for (const std::string_view body : bodies) {
                const http_reader::Message answer = http_reader::readResponse(rest, "GET");
                EXPECT_TRUE(answer.isComplete && answer.body == body) << answer.body.size();
                rest.remove_prefix(answer.byteCount);
            }
            EXPECT_EQ(rest, "");
            EXPECT_TRUE(runUntil([&] { return app_->activeSessionCount() == 0; }));
        }
    }
}

TEST_F(ZnHttpServerTest, APeerThatIsGoneAltogetherEndsItsSessionAtOnce) {
    std::vector<ZnHttpResponseCallback> kept;
    app_->router().addAsyncRoute("GET", "/never", [&](const auto&, const auto& answer) { kept.push_back(answer); });
    const int peer = connectToLoopback(port_);
    const std::string input = getOf("/never");
    ::send(peer, input.data(), input.size(), MSG_NOSIGNAL);
    ::shutdown(peer, SHUT_WR);
    ASSERT_TRUE(runUntil([&] { return kept.size() == 1; }));
    settle();
    EXPECT_EQ(app_->activeSessionCount(), 1U);
    resetOnClose(peer);
    ::close(peer);
    EXPECT_TRUE(runUntil([&] { return app_->activeSessionCount() == 0; }));
}

TEST_F(ZnHttpServerTest, ASlowReaderIsServedAndOneThatStopsIsCut) {
    app_->setTimeouts({.writeTimeoutMs = 400});
    const std::string body(16 << 20, 'x');
    app_->get("/large", [&](ZnHttpContext& context) { context.sendString(body, "x/y"); });
    for (const bool isReading : {true, false}) {
        const int client = connectToLoopback(port_);
        ::send(client, "GET /large HTTP/1.1\r\n\r\n", 23, MSG_NOSIGNAL);
        std::string received;
        std::vector<char> buffer(1 << 20);
        const auto takeSome = [&](std::size_t byteCount) {
            const ssize_t got = ::recv(client, buffer.data(), byteCount, MSG_DONTWAIT);
            received.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        };
        for (int i = 0; i < 40; ++i) { // four time-outs long
            takeSome(isReading ? 32 << 10 : 0);
            settle(40);
        }
        EXPECT_EQ(app_->activeSessionCount(), isReading ? 1U : 0U);
        for (int i = 0; isReading && i < 10000 && received.size() < received.find("\r\n\r\n") + 4 + body.size(); ++i) {
            takeSome(buffer.size());
            settle(1);
        }
        EXPECT_EQ(http_reader::readResponse(received, "GET").body.size(), isReading ? body.size() : 0);
        ::close(client);
    }
}

TEST_F(ZnHttpServerTest, AdmissionLimits) {
    app_->setLimits({.maxConnections = 2, .maxInflightRequests = 1});
    const auto parked = sendGet("/park");
    ASSERT_TRUE(runUntil([&] { return parkedHandlers_ == 1; }));
    const auto busy = sendGet("/echo/x");
    ASSERT_TRUE(runUntil([&] { return busy->received.ends_with("\r\n\r\nServer busy"); }));
    Client refused(port_);
    ASSERT_TRUE(runUntil([&] { return refused.isGone() && app_->stats().connectionsRefused == 1; }));
    EXPECT_EQ(refused.received, "");
    releaseHandlers();
    ASSERT_TRUE(runUntil([&] { return parked->answerCount() == 1; }));
    busy->socket.write(ZnString("GET /echo/x HTTP/1.1\r\n\r\n"));
    EXPECT_TRUE(runUntil([&] { return busy->received.ends_with("\r\n\r\nx"); }));
    EXPECT_EQ(app_->stats().busyRefused, 1);
    EXPECT_EQ(app_->stats().inFlight, 0);
}

TEST_F(ZnHttpServerTest, WhatNobodyCanAnswerAnyMoreDoesNotCountAsBeingHandled) {
    app_->setLimits({.maxInflightRequests = 1});
    ZnHttpResponseCallback kept;
    app_->router().addAsyncRoute("GET", "/kept", [&](const auto&, const auto& answer) { kept = answer; });
    app_->router().addAsyncRoute("GET", "/lost", [](const auto&, const auto&) {});
    const auto lost = sendGet("/lost");
    ASSERT_TRUE(runUntil([&] { return app_->stats().requestsStarted == 1; }));
    const auto later = sendGet("/kept");
    ASSERT_TRUE(runUntil([&] { return kept != nullptr; }));
    kept(ZnHttpResponse());
    kept(ZnHttpResponse());
    EXPECT_EQ(app_->stats().inFlight, 0);
    app_.reset();
    kept(ZnHttpResponse());
}

// All at once, with handlers that wait: more than there are fibers. Nobody waits in vain, and the server goes on.
class ZnHttpServerLoadTest : public ZnHttpServerTest {
protected:
    static constexpr int kCallCount = 2000;

    void SetUp() override {
        ZnHttpServerTest::SetUp();
        app_->setTimeouts({.headerTimeoutMs = 0, .bodyTimeoutMs = 0}); // a slow machine takes long for so many
        app_->get("/slow", [this](ZnHttpContext& context) {
            mostParked_ = std::max(mostParked_, ++parked_);
            do
                ZnEventLoop().exec(50);
            while (app_->stats().requestsStarted < callsToAwait_);
            --parked_;
            context.text("slow");
        });
    }
    /// How often each first line came.
    std::map<std::string, int> callAll() {
        return resultOf(std::async(std::launch::async, [port = port_] {
            std::map<std::string, int> answers;
            std::vector<int> descriptors;
            for (int i = 0; i < kCallCount; ++i)
                descriptors.push_back(connectToLoopback(port));
            for (const int descriptor : descriptors)
                ::send(descriptor, "GET /slow HTTP/1.1\r\nconnection: close\r\n\r\n", 41, MSG_NOSIGNAL);
            for (const int descriptor : descriptors) {
                const timeval patience{60, 0};
                ::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
                char answer[13] = {};
                ::recv(descriptor, answer, 12, MSG_WAITALL);
                ++answers[answer];
                ::close(descriptor);
            }
            return answers;
        }));
    }

    int callsToAwait_ = kCallCount; // so many have begun before any is answered
    int mostParked_ = 0;
    int parked_ = 0;
};

TEST_F(ZnHttpServerLoadTest, ManySlowCallsLeaveTheLoopItsFibers) {
    auto answers = callAll();
    EXPECT_EQ(mostParked_, application_.fiberPool().warmTarget() - 64);
    EXPECT_EQ(answers["HTTP/1.1 200"], mostParked_);
    EXPECT_EQ(answers["HTTP/1.1 503"], kCallCount - mostParked_);
    EXPECT_EQ(app_->stats().busyRefused, kCallCount - mostParked_);
    EXPECT_TRUE(firstAnswer("/slow").ends_with("slow"));
    EXPECT_EQ(app_->stats().inFlight, 0);
}

TEST_F(ZnHttpServerLoadTest, TheServersOwnLimitMayExceedTheWarmFibers) {
    constexpr int kOwnLimit = 700;
    app_->setLimits({.maxParkedRequests = kOwnLimit});
    EXPECT_EQ(callAll()["HTTP/1.1 200"], kOwnLimit);
    EXPECT_EQ(mostParked_, kOwnLimit);
    app_->setLimits({.maxParkedRequests = 1});
    const auto first = sendGet("/slow");
    ASSERT_TRUE(runUntil([&] { return parked_ == 1; }));
    EXPECT_TRUE(firstAnswer("/echo/x").ends_with("\r\n\r\nServer busy"));
    EXPECT_TRUE(runUntil([&] { return first->answerCount() == 1; }));
    EXPECT_TRUE(firstAnswer("/echo/x").ends_with("\r\n\r\nx"));
}

TEST_F(ZnHttpServerTest, WhatIsRefusedAnywayIsRefusedInFrontOfItsBody) {
    app_->addRequestFilter([this](const ZnHttpRequest& request, ZnHttpResponse& response) {
        if (request.queryString == "throw")
            throw std::runtime_error("x");
        EXPECT_EQ(request.localPort, port_);
        response = ZnHttpResponse::plain(403, "filtered", true);
        return request.queryString == "no";
    });
    const std::string body = " HTTP/1.1\r\ncontent-length: 2\r\nexpect: 100-continue\r\n\r\n";
    const std::string chunks = " HTTP/1.1\r\ntransfer-encoding: chunked\r\n\r\n";
    const std::string interim = "HTTP/1.1 100 Continue\r\n\r\n";
    const std::tuple<std::string, const char*, const char*, bool> kRows[] = {
        {"POST /body?no" + body, "HTTP/1.1 403 ", "\r\n\r\nfiltered", false},
        {"POST /body?no" + chunks, "HTTP/1.1 403 ", "\r\n\r\nfiltered", false},
        {"POST /none" + body, "HTTP/1.1 404 ", "\r\n\r\nNot Found", false},
        {"POST /peer" + body, "HTTP/1.1 405 ", "\r\n\r\nMethod Not Allowed", false},
        {"HEAD /none" + body, "HTTP/1.1 404 ", "\r\n\r\n", false},
        {"GET /none HTTP/1.1\r\n\r\n", "HTTP/1.1 404 ", "\r\n\r\nNot Found", true}, // no reason to close
        {"POST /body" + body, interim.c_str(), interim.c_str(), true},
        {"POST /body?throw" + body, interim.c_str(), interim.c_str(), true},
        {"GET /echo/a HTTP/1.1\r\n\r\nPOST /none" + body, "HTTP/1.1 200 ", "\r\n\r\na", true}}; // in its turn
    for (const bool isEarly : {true, false}) {
        app_->setLimits({.refuseBeforeBody = isEarly});
        for (const auto& [input, start, end, mayGoOn] : kRows) {
            SCOPED_TRACE(input);
            const bool goesOn = mayGoOn;
            const auto client = send(input);
            if (!isEarly && !goesOn) {
                settle();
                EXPECT_EQ(client->received, input.ends_with(chunks) ? "" : interim);
                continue;
            }
            ASSERT_TRUE(runUntil([&] { return client->answerCount() > 0 && (goesOn || client->isGone()); }));
            EXPECT_TRUE(client->received.starts_with(start)) << client->received;
            EXPECT_TRUE(client->received.ends_with(end)) << client->received;
            EXPECT_EQ(client->received.find("connection: close") == std::string::npos, goesOn);
        }
    }
}

// What the peer of one route sees, by what stands in front of it.
TEST_F(ZnHttpServerTest, FiltersAndMiddleware) {
    ZnHttpServer::Next kept;
    app_->addRequestFilter([](const ZnHttpRequest& request, ZnHttpResponse& response) {
        response.headers.insert("x-filter", "1");
        return request.queryString == "filter";
    });
    app_->addMiddleware([](const ZnHttpRequest& request, const ZnHttpServer::Next& next) {
        if (request.queryString == "throw")
            throw std::runtime_error("x");
        next(request.queryString == "first", ZnHttpResponse::text(200, "from the first"));
        next(false, {}); // only once
    });
    app_->addMiddleware([&](const ZnHttpRequest& request, const ZnHttpServer::Next& next) {
        if (request.queryString == "later")
            kept = next;
        else
            next(request.queryString == "second", ZnHttpResponse::text(200, "from the second"));
    });
    const std::pair<const char*, const char*> kRows[] = {{"", "\r\n\r\nx"},
                                                         {"filter", "\r\nx-filter: 1\r\n"},
                                                         {"first", "from the first"},
                                                         {"second", "from the second"},
                                                         {"throw", "Internal Server Error"}};
    for (const auto& [query, part] : kRows) {
        const std::string answer = firstAnswer(std::string("/echo/x?") + query);
        EXPECT_NE(answer.find(part), std::string::npos) << answer;
    }
    const auto client = sendGet("/echo/later?later");
    ASSERT_TRUE(runUntil([&] { return kept != nullptr; }));
    settle();
    EXPECT_EQ(client->received, "");
    std::thread([&] { kept(false, {}); }).join(); // goes on here all the same
    EXPECT_TRUE(runUntil([&] { return client->received.ends_with("\r\n\r\nlater"); }));
    EXPECT_EQ(app_->stats().inFlight, 0);
    const auto late = sendGet("/echo/later?later");
    kept = nullptr;
    ASSERT_TRUE(runUntil([&] { return kept != nullptr; }));
    app_.reset();
    kept(false, {});
}

TEST_F(ZnHttpServerTest, ContextMiddlewareStandsInFrontOfLaterRoutes) {
    std::function<void()> kept;
    app_->addContextMiddleware([&](ZnHttpContext& context, const std::function<void()>& next) {
        kept = next;
        context.locals()["user"] = std::string(context.request().queryString.view());
        if (context.request().queryString == "stop")
            return;
        next();
        next(); // only once
    });
    app_->setErrorHandler([](ZnHttpContext& context, const ZnString& errorText) {
        if (context.request().queryString == "again")
            throw 1;
        context.text("caught " + errorText, 502);
    });
    app_->setRoutePrefix(" api//v1/ ");
    int callCount = 0;
    app_->get("/",
              [&](ZnHttpContext& context) {
                  ++callCount;
                  const auto user = std::any_cast<std::string>(context.locals()["user"]);
                  if (user == "throw" || user == "again")
                      throw std::runtime_error("it");
                  ZnEventLoop().exec(user == "slow" ? 250 : 1);
                  context.text(ZnString(user));
              },
              {" user ", 200, true}); // of the time a busy machine takes a part
    const std::tuple<const char*, const char*, const char*, const char*> kRows[] = {
        {"/api/v1?me", "200 OK", "\r\nconnection: keep-alive\r\n", "me"},
        {"/api/v1?stop", "500 Internal Server Error", "", "Route handler produced no response"},
        {"/api/v1?throw", "502 Bad Gateway", "", "caught it"},
        {"/api/v1?again", "500 Internal Server Error", "\r\nconnection: close\r\n", "Internal Server Error"},
        {"/api/v1?slow", "504 Gateway Timeout", "\r\nx-route-timeout-ms: ", "Route timeout"}};
    for (const auto& [path, status, part, body] : kRows) {
        expectAnswer(path, status, part, body);
        if (kept)
            kept(); // its route has ended
    }
    EXPECT_EQ(callCount, 4);
}

class ZnHttpServerPoolTest : public ZnHttpServerTest {
protected:
    void SetUp() override {
        ZnHttpServerTest::SetUp();
        app_->get("/pool/:word", [this](ZnHttpContext& context) {
            EXPECT_NE(std::this_thread::get_id(), loopThread_);
            context.text(context.pathParam("word"));
        });
        app_->get("/gate", [this](ZnHttpContext& context) {
            ++waitingCount_;
            opened_.wait();
            context.text("through");
        });
        app_->get("/poolthrow", [](ZnHttpContext&) { throw std::runtime_error("x"); });
        app_->router().addAsyncRoute("GET", "/async", [this](const auto&, const ZnHttpResponseCallback& answer) {
            EXPECT_EQ(std::this_thread::get_id(), loopThread_);
            answer(ZnHttpResponse::text(200, "async"));
        });
        app_->setDispatchMode(ZnHttpServer::DispatchMode::ThreadPool);
        pool_->setMaxThreadCount(2);
        app_->setThreadPool(pool_.get());
    }
    void TearDown() override {
        if (opened_.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
            openGate();
        pool_.reset();
    }
    void openGate() { gate_.set_value(); }

    std::unique_ptr<ZnThreadPool> pool_ = std::make_unique<ZnThreadPool>();
    std::promise<void> gate_; // tasks of the pool wait for it
    std::shared_future<void> opened_ = gate_.get_future().share();
    std::atomic<int> waitingCount_{0};
};

TEST_F(ZnHttpServerPoolTest, RoutesRunOnThePool) {
    app_->addRequestFilter([this](const ZnHttpRequest& request, ZnHttpResponse&) {
        EXPECT_EQ(std::this_thread::get_id() == loopThread_, request.path == "/async");
        return request.queryString == "filter";
    });
    app_->router().setTrailingSlash(ZnHttpRouter::TrailingSlash::Strip);
    const std::pair<const char*, const char*> kRows[] = {
        {"/pool/a", "\r\n\r\na"},     {"/async", "async"}, {"/poolthrow", "Internal Server Error"},
        {"/pool/a?filter", "200 OK"}, {"/none", "404"},    {"/pool/a/", "308"}};
    for (const auto& [path, part] : kRows)
        EXPECT_NE(firstAnswer(path).find(part), std::string::npos) << path;
    EXPECT_EQ(app_->stats().inFlight, 0);
}

TEST_F(ZnHttpServerPoolTest, AFullPoolIsNotWaitedForAndWhatItDropsIsAnswered) {
    app_->setLimits({.maxThreadPoolRequests = 3});
    pool_->setMaxThreadCount(1);
    pool_->setMaxQueuedTaskCount(1);
    EXPECT_NE(firstAnswer("/pool/x").find("200 OK"), std::string::npos);
    const auto running = sendGet("/gate");
    ASSERT_TRUE(pollUntil([&] { return waitingCount_ == 1; }));
    const auto queued = sendGet("/pool/queued");
    ASSERT_TRUE(pollUntil([&] { return pool_->queuedTaskCount() == 1; }));
    EXPECT_NE(firstAnswer("/pool/x").find("\r\n\r\nThreadPool saturated"), std::string::npos);
    EXPECT_EQ(app_->stats().poolRefused, 0); // by the pool
    app_->setLimits({.maxThreadPoolRequests = 2});
    EXPECT_NE(firstAnswer("/pool/x").find("503 Service Unavailable"), std::string::npos);
    EXPECT_EQ(app_->stats().poolRefused, 1);
    EXPECT_NE(firstAnswer("/async").find("async"), std::string::npos);
    std::thread opener([&] {
        while (app_->stats().statusCounts.value("503") < 3) // dropped first, then what runs is waited for
            std::this_thread::yield();
        openGate();
    });
    pool_.reset();
    opener.join();
    EXPECT_TRUE(runUntil([&] { return running->answerCount() + queued->answerCount() == 2; }));
    EXPECT_TRUE(running->received.ends_with("through"));
    EXPECT_TRUE(queued->received.ends_with("\r\n\r\nThreadPool unavailable")) << queued->received;
    EXPECT_NE(firstAnswer("/echo/x").find("200 OK"), std::string::npos); // inline
}

// Answers of sessions, and of a server, that are gone; the thread sanitizer is the judge.
TEST_F(ZnHttpServerPoolTest, JobsOutliveTheirConnections) {
    std::vector<std::unique_ptr<Client>> clients;
    for (int round = 0; round < 40; ++round) {
        clients.push_back(send("GET /pool/a HTTP/1.1\r\n\r\nGET /pool/b HTTP/1.1\r\n\r\n"));
        if (round % 3 == 0)
            clients.back()->socket.close();
        if (round % 4 == 0)
            settle(1);
    }
    const auto isServed = [](const auto& client) { return !client->socket.isOpen() || client->answerCount() == 2; };
    ASSERT_TRUE(pollUntil([&] { return std::all_of(clients.begin(), clients.end(), isServed); }));
    ASSERT_TRUE(pollUntil([&] { return pool_->waitForDone(); })); // else both gates could end up with one worker
    const auto leaving = sendGet("/gate");
    ASSERT_TRUE(pollUntil([&] { return waitingCount_ == 1; }));
    const auto staying = sendGet("/gate");
    ASSERT_TRUE(pollUntil([&] { return waitingCount_ == 2; }));
    const auto queued = sendGet("/pool/x");
    ASSERT_TRUE(pollUntil([&] { return pool_->queuedTaskCount() == 1; }));
    leaving->socket.close();
    ASSERT_TRUE(runUntil([&] { return app_->activeSessionCount() <= 42; }));
    app_.reset();
    openGate();
    EXPECT_TRUE(pool_->waitForDone());
    settle();
    EXPECT_EQ(staying->received + queued->received, "");
}

// The session removes the file of an upload as it ends, even if a handler still holds the request.
TEST_F(ZnHttpServerPoolTest, FilesOfUploadsGoWithTheirRequest) {
    const TemporaryDirectory directory;
    app_->setLimits({.streamMultipart = true, .multipartTempDir = directory.path()});
    app_->post("/upload", [&](ZnHttpContext& context) {
        EXPECT_EQ(contentOf(context.request().multipartParts[0].tempFilePath), "content");
        ++waitingCount_;
        opened_.wait();
        context.text("done");
    });
    const std::string folder = directory.path().str();
    const auto fileCount = [&] { return std::distance(std::filesystem::directory_iterator(folder), {}); };
    const std::string body = "--b\r\ncontent-disposition: form-data; name=f; filename=x\r\n\r\ncontent\r\n--b--\r\n";
    const std::string input = "POST /upload HTTP/1.1\r\ncontent-type: multipart/form-data; boundary=b\r\n"
                              "content-length: " +
                              std::to_string(body.size()) + "\r\n\r\n" + body;
    const int client = connectToLoopback(port_);
    ::send(client, input.data(), input.size(), MSG_NOSIGNAL);
    ASSERT_TRUE(pollUntil([&] { return waitingCount_ == 1; }));
    EXPECT_EQ(fileCount(), 1);
    resetOnClose(client);
    ::close(client);
    EXPECT_TRUE(runUntil([&] { return app_->activeSessionCount() == 0; }));
    EXPECT_EQ(fileCount(), 0);
    openGate();
    EXPECT_TRUE(pool_->waitForDone());
    EXPECT_EQ(app_->stats().inFlight, 0);
}

} // namespace
