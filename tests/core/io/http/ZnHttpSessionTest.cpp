#include "core/io/http/ZnHttpSession.h"
#include "core/fs/TemporaryDirectory.h"
#include "core/io/http/ZnHttpContext.h"
#include "core/io/http/ZnHttpRouter.h"
#include "core/platform/ZnMonotonicClock.h"
#include "core/runtime/ZnEventLoop.h"
#include "core/runtime/ZnTimer.h"
#include "support/HttpReader.h"
#include "support/LoopFixture.h"

#include <list>
#include <random>
#include <sys/stat.h>
#include <thread>

namespace {

/// A connection whose peer is the test.
class FakeSocket : public ZnAbstractSocket {
public:
    ZN_OBJECT(FakeSocket, ZnAbstractSocket)

    explicit FakeSocket(std::string& output) : output_(output) { state_ = SocketState::Connected; }
    void close() override {
        if (std::exchange(state_, SocketState::Unconnected) == SocketState::Connected)
            disconnected();
    }
    ZnString read(long long) override { return {}; }
    std::size_t readInto(char* buffer, std::size_t capacity) override {
        const std::size_t byteCount = input_.copy(buffer, capacity);
        input_.erase(0, byteCount);
        return byteCount;
    }
    using ZnAbstractSocket::write;
    bool write(ZnString bytes) override {
        output_ += bytes.view();
        if (const std::function<void()> call = onWrite)
            call();
        return true;
    }
    bool connectToHost(const ZnString&, unsigned short) override { return false; }
    bool waitForConnected(int) override { return false; }
    bool waitForBytesWritten(int) override { return false; }

    void receive(std::string_view bytes) {
        input_ += bytes;
        readyRead();
    }

    std::function<void()> onWrite = [this] { writeFinished(); }; // null: stalls; it may delete this socket

private:
    std::string input_;
    std::string& output_;
};

struct Link {
    std::string output;
    ZnPointer<FakeSocket> socket;
    ZnPointer<ZnHttpSession> session;
    long long closedNs = 0;
    const long long openedNs = monotonicNowNs();
};

std::string getOf(const std::string& path) {
    return "GET " + path + " HTTP/1.1\r\n\r\n";
}

ZnHttpResponse echoOf(const ZnHttpRequest& request) {
    return ZnHttpResponse::text(200, request.path.view());
}

std::string answerTo(const std::string& path, const char* connection = "keep-alive") {
    return "HTTP/1.1 200 OK\r\ncontent-type: text/plain; charset=utf-8\r\ncontent-length: " +
           std::to_string(path.size()) + "\r\nconnection: " + connection + "\r\n\r\n" + path;
}

class ZnHttpSessionTest : public LoopFixture {
protected:
    Link& open(ZnHttpSession::RequestHandler handler = nullptr, const ZnHttpTimeouts& timeouts = {}) {
        Link& link = links_.emplace_back();
        link.socket = new FakeSocket(link.output);
        link.session = new ZnHttpSession(link.socket.get(), &router_, limits_, timeouts, false, 80);
        link.session->setRequestHandler(std::move(handler));
        link.session->setClosedHandler([&link](ZnHttpSession* closed) {
            link.closedNs = monotonicNowNs();
            closed->deleteLater();
        });
        return link;
    }
    /// With a handler that only keeps the callbacks.
    Link& openUnanswered(const ZnHttpTimeouts& timeouts = {}) {
        return open([this](const auto&, const auto& callback) { callbacks_.push_back(callback); }, timeouts);
    }
    void park(int ms) { ZnEventLoop().exec(ms); }

    ZnHttpRouter router_;
    ZnHttpLimits limits_;
    std::vector<ZnHttpResponseCallback> callbacks_;
    std::list<Link> links_;
};

// With the pool saturated the post that goes on with the burst is refused.
TEST_F(ZnHttpSessionTest, ALongBurstGivesOthersATurnAndIsNeverLost) {
    int handledCount = 0;
    router_.addRoute("GET", "/", [&](const ZnHttpRequest& request) { return ++handledCount, echoOf(request); });
    limits_.maxPipelinedRequests = 50;
    std::string burst;
    for (int i = 0; i < 50; ++i)
        burst += getOf("/");
    for (const bool isSaturated : {false, true}) {
        while (isSaturated && application_.postEvent([] {})) {
        }
        handledCount = 0;
        Link& link = open();
        link.socket->receive(burst);
        EXPECT_EQ(handledCount, 16);
        EXPECT_TRUE(runUntil([&] { return handledCount == 50; }));
        EXPECT_EQ(link.output.size(), 50 * answerTo("/").size());
    }
}

ZnHttpResponse fileResponse(const ZnString& path, std::uint64_t offset, std::uint64_t length) {
    ZnHttpResponse response;
    response.useFile = true;
    response.filePath = path;
    response.fileOffset = offset;
    response.fileLength = length;
    response.fileChunkBytes = 1; // the smallest block: 4096
    return response;
}

ZnHttpResponse chunkedResponse(const std::vector<std::string>& chunks, const char* body = "") {
    ZnHttpResponse response = ZnHttpResponse::text(200, body);
    response.chunked = true;
    response.headers.insert("content-length", "3"); // would be taken for the length
    for (const std::string& chunk : chunks)
        response.chunks.append(ZnByteArray(chunk));
    return response;
}

// Each piece when the peer has taken the one before; `sizes`: what has left of the body after each.
TEST_F(ZnHttpSessionTest, BodiesLeavePieceByPiece) {
    const TemporaryDirectory directory;
    std::string content;
    while (content.size() < 10'000)
        content += std::to_string(content.size()) + ",";
    const ZnString path = directory.file("f", content);
    const std::string large(16 * 1024 + 1, 'x');
    const std::string coding = "transfer-encoding: chunked",
                      fourChunks = "2\r\nab\r\n4001\r\n" + large + "\r\n1\r\nc\r\n0\r\n\r\n";
    const std::tuple<ZnHttpResponse, std::string, std::string, std::vector<std::size_t>> kRows[] = {
        {fileResponse(path, 3, 9000), "content-length: 9000", content.substr(3, 9000), {4096, 8192, 9000}},
        {fileResponse(path, 0, 4096), "content-length: 4096", content.substr(0, 4096), {4096}},
        {fileResponse(path, 0, 0), "content-length: 0", "", {0}},
        {chunkedResponse({"ab", "", large, "c"}), coding, fourChunks, {13 + large.size(), 26 + large.size()}},
        {chunkedResponse({}, "body"), coding, "4\r\nbody\r\n0\r\n\r\n", {14}},
        {chunkedResponse({}), coding, "0\r\n\r\n", {5}},
    };
    router_.addRoute("GET", "/next", echoOf);
    for (const auto& [response, framing, body, sizes] : kRows) {
        router_.setFallback([&answer = response](const ZnHttpRequest&) { return answer; });
        for (const bool stalls : {false, true}) {
            Link& link = open();
            if (stalls)
                link.socket->onWrite = nullptr;
            link.socket->receive(getOf("/") + getOf("/next"));
            const std::size_t headBytes = link.output.find("\r\n\r\n") + 4;
            const std::string head = link.output.substr(0, headBytes);
            EXPECT_NE(head.find("\r\n" + framing + "\r\n"), std::string::npos) << head;
            EXPECT_NE(head.find("content-length") == std::string::npos, head.find("chunked") == std::string::npos);
            for (std::size_t i = 0; stalls && i < sizes.size(); ++i) {
                settle(1);
                EXPECT_EQ(link.output.size() - headBytes, sizes[i]) << head;
                link.socket->writeFinished();
            }
            EXPECT_TRUE(runUntil([&] { return link.output.ends_with(answerTo("/next")); }));
            EXPECT_EQ(link.output.substr(headBytes), body + answerTo("/next"));
        }
    }
}

TEST_F(ZnHttpSessionTest, AFileThatCannotBeSentIsAnsweredOrCutShort) {
    const TemporaryDirectory directory;
    const ZnString pipe = directory.path("pipe");
    ASSERT_EQ(::mkfifo(pipe.data(), 0600), 0);
    const ZnString file = directory.file("f", std::string(5000, 'x'));
    const ZnString withNul((file.str() + '\0').data(), file.size() + 2);
    const std::pair<ZnHttpResponse, const char*> kRows[] = {
        {fileResponse(directory.path(), 0, 1), "Unable to open file"},
        {fileResponse(pipe, 0, 1), "Unable to open file"}, // nor does it wait for a writer
        {fileResponse(withNul, 0, 1), "Unable to open file"},
        {fileResponse(file, 5000, 1), "File stream read failure"},
        {fileResponse(file, ~0ULL - 4, 10), "File stream read failure"},
        {fileResponse(file, 0, 9000), nullptr}, // cut short
    };
    for (const auto& row : kRows) {
        router_.setFallback([&row](const ZnHttpRequest&) { return row.first; });
        Link& link = open();
        link.socket->receive(getOf("/"));
        EXPECT_TRUE(runUntil([&] { return link.closedNs != 0; }));
        EXPECT_TRUE(link.output.starts_with(row.second ? "HTTP/1.1 500 Internal Server Error\r\n" : "HTTP/1.1 200"));
        EXPECT_TRUE(link.output.ends_with("\r\n\r\n" + (row.second ? row.second : std::string(5000, 'x'))));
    }
}

/// What a handler does to its answer, in any order and as often as it likes.
void answerAtRandom(ZnHttpContext& context, const ZnString& file, std::mt19937& random) {
    const auto oneOf = [&](const auto& values) { return values[random() % std::size(values)]; };
    const int status = oneOf(std::to_array<int>({100, 101, 103, 200, 200, 204, 206, 304, 404, 500}));
    for (unsigned i = 0, count = 1 + random() % 4; i < count; ++i) {
        ZnHttpResponse& response = context.response();
        const ZnString text(std::string(oneOf(std::to_array<std::size_t>({0, 1, 5, 20'000})), 'x'));
        switch (random() % 8) {
        case 0: context.text(text, status); break;
        case 1: context.json(ZnJsonValue(text), status); break;
        case 2: context.sendStatus(status); break;
        case 3:
            context.setHeader("Content-Length", oneOf(std::to_array<const char*>({"0", "1", "005", "7", "x"})));
            break;
        case 4: response.headers.insert(" content-LENGTH", "3"); break;
        case 5:
            context.setHeader("transfer-encoding", oneOf(std::to_array<const char*>({"chunked", "Chunked", "gzip"})));
            break;
        case 6: response.headOnly = true; break;
        default:
            response.chunked = (random() & 1) != 0;
            response.useFile = !response.chunked;
            response.filePath = file;
            response.fileLength = 4000;
            response.chunks.append(ZnByteArray(text));
        }
    }
}

std::string bodyOf(const ZnHttpResponse& response) {
    if (response.headOnly)
        return "";
    if (response.useFile)
        return std::string(4000, 'f');
    std::string body(response.body.view());
    if (response.chunked && !response.chunks.isEmpty())
        body.clear();
    for (std::size_t i = 0; response.chunked && i < response.chunks.size(); ++i)
        body += response.chunks[i].view();
    return body;
}

// Whatever a handler has set: its answer ends where another reader thinks it does, and the next one begins there.
TEST_F(ZnHttpSessionTest, AnswersKeepTheirFraming) {
    const TemporaryDirectory directory;
    const ZnString file = directory.file("f", std::string(4000, 'f'));
    std::mt19937 random(20260);
    for (int round = 0; round < 4000; ++round) {
        SCOPED_TRACE(round);
        const std::string method = round % 3 == 0 ? "HEAD" : "POST";
        const std::string version = round % 5 == 0 ? " HTTP/1.0\r\nconnection: keep-alive" : " HTTP/1.1";
        std::string body;
        int status = 0;
        router_.setFallback([&](const ZnHttpRequest& request) {
            if (request.path == "/next")
                return echoOf(request);
            ZnHttpContext context(request);
            answerAtRandom(context, file, random);
            body = bodyOf(context.response());
            status = context.response().status;
            return context.response();
        });
        Link& link = open();
        runOnFiber([&] { link.socket->receive(method + " /" + version + "\r\n\r\n" + getOf("/next")); });
        ASSERT_TRUE(runUntil([&] { return link.closedNs != 0 || link.output.ends_with("/next"); }));
        const std::string_view output = link.output;
        const http_reader::Message first = http_reader::readResponse(output, method);
        ASSERT_TRUE(first.isComplete) << first.error << output;
        EXPECT_FALSE(round % 5 == 0 && first.fields.contains("transfer-encoding")) << output;
        const bool isBodiless = method == "HEAD" || status < 200 || status == 204 || status == 304;
        EXPECT_EQ(first.body, isBodiless ? "" : body) << output;
        EXPECT_EQ(output.substr(first.byteCount), status < 200 ? "" : answerTo("/next")) << output;
        ASSERT_FALSE(HasFailure());
        link.session->close();
    }
}

// What the head says of a body that is not sent.
TEST_F(ZnHttpSessionTest, HeadsWithoutBodies) {
    const struct {
        const char* method;
        int status;
        const char *length, *body, *sentLength; // the first: as the handler says it, if it does
        bool headOnly = false;
    } kRows[] = {
        {"HEAD", 200, "", "abc", "3"}, {"HEAD", 200, "0", "abc", "3"},      {"HEAD", 200, "7", "", "7"},
        {"HEAD", 200, "x", "", "0"},   {"HEAD", 204, "", "abc", "0"},       {"GET", 204, "7", "abc", "0"},
        {"GET", 304, "", "abc", "3"},  {"GET", 304, "7", "", "7"},          {"GET", 200, "", "abc", "0", true},
        {"GET", 200, "7", "", "0"},    {"HEAD", 200, "", "abc", "3", true},
    };
    for (const auto& row : kRows) {
        router_.setFallback([&row](const ZnHttpRequest&) {
            ZnHttpResponse response = ZnHttpResponse::text(row.status, row.body);
            response.headOnly = row.headOnly;
            if (*row.length != 0)
                response.headers.insert("content-length", row.length);
            return response;
        });
        Link& link = open();
        link.socket->receive(std::string(row.method) + " / HTTP/1.1\r\n\r\n");
        EXPECT_TRUE(link.output.ends_with("\r\n\r\n"));
        EXPECT_EQ(http_reader::readResponse(link.output, "HEAD").fields["content-length"], row.sentLength);
    }
}

long openCount(const ZnString& path) {
    const std::filesystem::directory_iterator files("/proc/self/fd");
    return std::count_if(begin(files), end(files), [&](const auto& entry) {
        std::error_code error;
        return std::filesystem::read_symlink(entry, error) == path.str();
    });
}

const std::function<void(Link&)> kEnds[] = {
    [](Link& link) { delete link.session.get(); }, [](Link& link) { delete link.socket.get(); },
    [](Link& link) { link.socket->close(); },      [](Link& link) { link.socket->errorOccurred(10054); },
    [](Link& link) { link.session->close(); },
};

// Whatever ends the connection: the handler returns in peace, and the file that was on its way is closed. The address
// sanitizer is the judge.
TEST_F(ZnHttpSessionTest, HandlerOutlivesTheConnection) {
    enum When { Running, Parked, Writing, Streaming };
    const TemporaryDirectory directory;
    const ZnString file = directory.file("f", std::string(100'000, 'x'));
    for (int i = 0; i < 4 * static_cast<int>(std::size(kEnds)); ++i) {
        const When when = static_cast<When>(i % 4);
        const auto& endConnection = kEnds[i / 4];
        int returnedCount = 0;
        Link& link = open([&](const auto& request, const auto& callback) {
            const ZnHttpRequest* const kept = request.get();
            if (when == Running)
                endConnection(links_.back());
            if (when == Parked) {
                ZnTimer::singleShot(0, [&] { endConnection(links_.back()); });
                park(30);
            }
            callback(fileResponse(file, kept->path.size(), 90'000));
            ++returnedCount;
        });
        if (when == Writing)
            link.socket->onWrite = [&] { endConnection(link); };
        runOnFiber([&] {
            link.socket->receive(getOf("/1") + getOf("/2"));
            EXPECT_EQ(openCount(file), when == Streaming ? 1 : 0);
            if (when == Streaming)
                endConnection(link);
            EXPECT_EQ(openCount(file), 0);
        });
        settle();
        EXPECT_TRUE(returnedCount == 1 && link.closedNs != 0 && !link.session) << i;
        EXPECT_EQ(link.output.empty(), when == Running || when == Parked) << i;
        EXPECT_LT(link.output.size(), 4096U + 200U) << i;
    }
}

TEST_F(ZnHttpSessionTest, ASwitchHandsTheSocketOver) {
    const std::string head = "HTTP/1.1 101 Switching Protocols\r\nconnection: upgrade\r\ncontent-length: 0\r\n\r\n";
    for (const auto& [hasHead, throws] : {std::pair(true, true), {true, false}, {false, true}, {false, false}}) {
        bool taken = false;
        ZnHttpResponse response = ZnHttpResponse::text(101, "no part of it");
        response.headers = {{"connection", "upgrade"}};
        response.closeConnection = response.switchProtocols = true;
        response.switchWithoutHead = !hasHead;
        response.onSwitch = [&, isThrowing = throws](ZnAbstractSocket* socket) {
            taken = socket == links_.back().socket.get() && links_.back().session->isClosed();
            if (isThrowing)
                throw 1;
        };
        Link& link = open([&](const auto&, const auto& callback) { callback(response); });
        if (hasHead)
            link.socket->onWrite = nullptr;
        application_.postEvent([&, waits = hasHead] {
            link.socket->receive(getOf("/"));
            EXPECT_NE(taken, waits);
            if (!waits)
                return;
            link.socket->receive("\x81\x01"); // not HTTP any more, and not the session's
            link.socket->writeFinished();
        });
        EXPECT_TRUE(runUntil([&] { return taken && !link.session; }));
        settle();
        EXPECT_EQ(link.output, hasHead ? head : "");
        EXPECT_EQ(!link.socket, throws);
        if (!link.socket)
            continue;
        char bytes[8];
        EXPECT_TRUE(link.socket->isOpen());
        EXPECT_EQ(link.socket->readInto(bytes, sizeof(bytes)), hasHead ? 2U : 0U);
        delete link.socket.get();
    }
}

// With the pool full to the last place the posts are refused.
TEST_F(ZnHttpSessionTest, AnswersFromOtherThreadsWaitForRoom) {
    for (int i = 0; i < 20; ++i)
        openUnanswered().socket->receive(getOf("/"));
    while (application_.postEventOnLane([] {}, ZnFiberPool::kFirstLane)) {
    }
    std::thread([&] {
        for (const ZnHttpResponseCallback& callback : callbacks_)
            callback(ZnHttpResponse::text(200, "/x"));
    }).join();
    EXPECT_TRUE(runUntil([&] {
        return std::all_of(links_.begin(), links_.end(), [](const Link& l) { return l.output == answerTo("/x"); });
    }));
}

TEST_F(ZnHttpSessionTest, OnlyTheFirstAnswerToTheRequestCounts) {
    Link& link = openUnanswered();
    link.socket->receive(getOf("/1") + getOf("/2"));
    ASSERT_EQ(callbacks_.size(), 1U);
    callbacks_[0](ZnHttpResponse::text(200, "/1"));
    EXPECT_TRUE(runUntil([&] { return callbacks_.size() == 2; }));
    callbacks_[0](ZnHttpResponse::text(200, "/again"));
    std::thread([&] { callbacks_[1](ZnHttpResponse::text(200, "/2")); }).join();
    EXPECT_EQ(link.output, answerTo("/1"));
    EXPECT_TRUE(runUntil([&] { return link.output == answerTo("/1") + answerTo("/2"); }));
    callbacks_[1](ZnHttpResponse::text(200, "/again"));
    EXPECT_EQ(link.output, answerTo("/1") + answerTo("/2"));
    link.session->close();
    settle();
    callbacks_[1](ZnHttpResponse::text(200, "/late"));
    EXPECT_FALSE(link.session);
}

TEST_F(ZnHttpSessionTest, WhatComesAfterARefusalIsDiscardedForAWhile) {
    for (const bool isFlood : {false, true}) {
        Link& link = open();
        link.socket->onWrite = nullptr;
        link.socket->receive("POST / HTTP/1.1\r\ncontent-length: 9000000\r\n\r\n");
        link.socket->receive(getOf("/"));
        EXPECT_EQ(link.closedNs, 0) << "in front of the end of the refusal";
        link.socket->writeFinished();
        for (int i = 0; isFlood && i < 40 && link.closedNs == 0; ++i)
            link.socket->receive(std::string(1024 * 1024, 'x'));
        EXPECT_EQ(link.closedNs != 0, isFlood);
        EXPECT_TRUE(runUntil([&] { return link.closedNs != 0; }, 2000));
        EXPECT_EQ(link.output.find("HTTP/1.1", 1), std::string::npos);
    }
}

TEST_F(ZnHttpSessionTest, AClientThatHoldsItsBodyBackIsToldToGoOn) {
    const std::string post = "POST / HTTP/1.1\r\nexpect: 100-Continue\r\n";
    const std::string interim = "HTTP/1.1 100 Continue\r\n\r\n";
    const std::tuple<std::string, std::string, std::string> kRows[] = {
        // what has come before the body
        {post + "content-length: 2\r\n\r\n", interim, "ab"},
        {post + "transfer-encoding: chunked\r\n\r\n", interim, "1\r\na\r\n0\r\n\r\n"},
        {post + "content-length: 2\r\n\r\na", "", "b"}, // it does not wait
        {post + "content-length: 0\r\n\r\n", answerTo("/"), ""},
        {"POST / HTTP/1.0\r\nexpect: 100-continue\r\ncontent-length: 1\r\n\r\n", "", "a"},
        {getOf("/never") + post + "content-length: 1\r\n\r\n", "", ""}}; // it would come out of turn
    for (const auto& [head, output, body] : kRows) {
        Link& link = open([](const auto& request, const ZnHttpResponseCallback& callback) {
            if (request->path == "/")
                callback(echoOf(*request));
        });
        link.socket->receive(head);
        EXPECT_EQ(link.output, output) << head;
        link.socket->receive(body);
        EXPECT_EQ(link.output.ends_with("\r\n\r\n/"), !head.starts_with("GET")) << head;
    }
    Link& refused = open();
    refused.socket->receive(post + "content-length: 9000000\r\n\r\n");
    EXPECT_TRUE(refused.output.starts_with("HTTP/1.1 413 ")) << refused.output;
    Link& leaving = open();
    leaving.socket->onWrite = [&] { leaving.socket->close(); };
    leaving.socket->receive(post + "content-length: 2\r\n\r\n");
    EXPECT_NE(leaving.closedNs, 0);
}

// That each stage has its row of the time-out table, and what the peer is told.
TEST_F(ZnHttpSessionTest, TimeOuts) {
    constexpr int kSoon = 100, kLate = 60000;
    const ZnHttpTimeouts header{kSoon, kLate, kLate, kLate}, body{kLate, kSoon, kLate, kLate},
        silence{0, kLate, kSoon, kLate}, write{kLate, kLate, kLate, kSoon}, allButBody{kSoon, 0, kSoon, kSoon},
        allButWrite{kSoon, kSoon, kSoon, 0};
    const std::tuple<std::string, ZnHttpTimeouts, const char*> kRows[] = {
        // null: the connection stays open
        {getOf("/never"), body, "504 Gateway Timeout"},
        {getOf("/never"), allButBody, nullptr},
        {getOf("/"), header, "408 Request Timeout"},
        {"", silence, ""},
        {"GET", silence, nullptr}, // not idle
        {"GET / HTTP/1.1\r\n", header, "408 Request Timeout"},
        {"POST / HTTP/1.1\r\ncontent-length:2\r\n\r\nx", body, "408 Request Timeout"},
        {getOf("/stalled"), write, "200 OK"},
        {getOf("/stalled"), allButWrite, nullptr},
    };
    router_.setFallback(echoOf);
    for (const auto& [input, timeouts, lastAnswer] : kRows) {
        Link& link = input == getOf("/never") ? openUnanswered(timeouts) : open(nullptr, timeouts);
        if (input == getOf("/stalled"))
            link.socket->onWrite = nullptr;
        link.socket->receive(input);
    }
    settle(450);
    auto link = links_.begin();
    for (const auto& [input, timeouts, lastAnswer] : kRows) {
        SCOPED_TRACE(input);
        ASSERT_EQ(link->closedNs != 0, lastAnswer != nullptr);
        const std::string& output = link->output;
        const std::size_t lastHead = output.empty() ? 0 : output.rfind("HTTP/1.1 ") + 9;
        if (lastAnswer != nullptr) {
            EXPECT_GE(link->closedNs - link->openedNs, 200'000'000); // the first tick, not 101 ms
            EXPECT_EQ(output.substr(lastHead, output.find("\r\n", lastHead) - lastHead), lastAnswer);
        }
        ++link;
    }
    callbacks_[0](ZnHttpResponse::text(200, "too late"));
    EXPECT_EQ(links_.front().output.find("too late"), std::string::npos);
}

TEST_F(ZnHttpSessionTest, TheTimeForTheHeadersBeginsWithTheirFirstByte) {
    Link& link = open(nullptr, {600, 60000, 60000, 60000});
    settle(300);
    const long long firstByteNs = monotonicNowNs();
    link.socket->receive("G");
    ASSERT_TRUE(runUntil([&] { return link.closedNs != 0; }, 5000));
    EXPECT_GE(link.closedNs - firstByteNs, 600'000'000);
}

TEST_F(ZnHttpSessionTest, EmptyLinesKeepNoConnection) {
    for (const bool isHalved : {false, true}) {
        for (const ZnHttpTimeouts& timeouts : {ZnHttpTimeouts{0, 0, 300, 0}, ZnHttpTimeouts{300, 0, 0, 0}}) {
            Link& link = open(nullptr, timeouts);
            for (int i = 0; i < 200 && link.closedNs == 0; ++i) {
                link.socket->receive(!isHalved ? "\r\n" : i % 2 == 0 ? "\r" : "\n");
                settle(10);
            }
            EXPECT_NE(link.closedNs, 0);
        }
    }
}

} // namespace
