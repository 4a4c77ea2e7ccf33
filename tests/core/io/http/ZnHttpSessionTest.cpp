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

TEST_F(ZnHttpSessionTest, AnswersWithoutGoingThroughTheLoop) {
    router_.addRoute("GET", "/a", echoOf);
    Link& link = open();
    link.socket->receive(getOf("/a") + "HEAD /a HTTP/1.1\r\n");
    link.socket->receive("\r\n" + getOf("/b"));
    const std::string answer = answerTo("/a");
    const std::string head = answer.substr(0, answer.size() - 2);
    EXPECT_TRUE(link.output.starts_with(answer + head + "HTTP/1.1 404 Not Found\r\n")) << link.output;
    EXPECT_FALSE(link.session->isClosed());
    link.socket->receive("GET /a HTTP/1.0\r\n\r\n");
    EXPECT_TRUE(link.output.ends_with(answerTo("/a", "close")));
    EXPECT_NE(link.closedNs, 0);
}

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

TEST_F(ZnHttpSessionTest, BodiesLeavePieceByPiece) {
    const TemporaryDirectory directory;
    std::string content;
    while (content.size() < 10'000)
        content += std::to_string(content.size()) + ",";
    const ZnString path = directory.file("f", content);
    ZnHttpResponse chunks;
    chunks.chunked = true;
    chunks.headers.insert("content-length", "3"); // would be taken for the length
    const std::string large(16 * 1024 + 1, 'x');
    for (const std::string& text : {std::string("ab"), std::string(), large, std::string("c")})
        chunks.chunks.append(ZnByteArray(text));
    ZnHttpResponse oneChunk = ZnHttpResponse::text(200, "body");
    ZnHttpResponse noChunk;
    oneChunk.chunked = noChunk.chunked = true;
    const struct {
        const char* name;
        const ZnHttpResponse& response;
        std::string framing, body;
        std::vector<std::size_t> pieces; // bytes behind the head after each write
    } kRows[] = {
        {"part", fileResponse(path, 3, 9000), "content-length: 9000", content.substr(3, 9000), {4096, 8192, 9000}},
        {"block", fileResponse(path, 0, 4096), "content-length: 4096", content.substr(0, 4096), {4096}},
        {"empty", fileResponse(path, 0, 0), "content-length: 0", "", {0}},
        {"chunks",
         chunks,
         "transfer-encoding: chunked",
         "2\r\nab\r\n4001\r\n" + large + "\r\n1\r\nc\r\n0\r\n\r\n",
         {13 + large.size(), 26 + large.size()}},
        {"one", oneChunk, "transfer-encoding: chunked", "4\r\nbody\r\n0\r\n\r\n", {14}},
        {"none", noChunk, "transfer-encoding: chunked", "0\r\n\r\n", {5}},
    };
    for (const auto& row : kRows) {
        for (const bool stalls : {false, true}) {
            SCOPED_TRACE(row.name);
            Link& link = open([&](const auto& request, const ZnHttpResponseCallback& callback) {
                callback(request->path == "/next" ? echoOf(*request) : row.response);
            });
            if (stalls)
                link.socket->onWrite = nullptr;
            link.socket->receive(getOf("/") + getOf("/next"));
            const std::size_t headBytes = link.output.find("\r\n\r\n") + 4;
            const std::string sent = link.output.substr(0, headBytes);
            EXPECT_NE(sent.find("\r\n" + row.framing + "\r\n"), std::string::npos);
            EXPECT_NE(sent.find("content-length") == std::string::npos, sent.find("chunked") == std::string::npos);
            for (std::size_t i = 0; stalls && i < row.pieces.size(); ++i) {
                settle(1);
                EXPECT_EQ(link.output.size() - headBytes, row.pieces[i]); // and no more before the peer has taken it
                link.socket->writeFinished();
            }
            EXPECT_TRUE(runUntil([&] { return link.output.ends_with(answerTo("/next")); }));
            EXPECT_EQ(link.output.substr(headBytes), row.body + answerTo("/next"));
        }
    }
}

TEST_F(ZnHttpSessionTest, AFileThatCannotBeSentIsAnsweredOrCutShort) {
    const TemporaryDirectory directory;
    const ZnString pipe = directory.path("pipe");
    ASSERT_EQ(::mkfifo(pipe.data(), 0600), 0);
    const ZnString file = directory.file("f", std::string(5000, 'x'));
    const struct {
        ZnHttpResponse response;
        const char* body;
    } kRows[] = {
        {fileResponse(directory.path(), 0, 1), "Unable to open file"},
        {fileResponse(pipe, 0, 1), "Unable to open file"}, // nor does it wait for a writer
        {fileResponse(ZnString((file.str() + '\0').data(), file.size() + 2), 0, 1), "Unable to open file"},
        {fileResponse(file, 5000, 1), "File stream read failure"},
        {fileResponse(file, ~0ULL - 4, 10), "File stream read failure"},
    };
    for (const auto& row : kRows) {
        router_.setFallback([&row](const ZnHttpRequest&) { return row.response; });
        Link& link = open();
        link.socket->receive(getOf("/"));
        EXPECT_TRUE(link.output.starts_with("HTTP/1.1 500 Internal Server Error\r\n"));
        EXPECT_TRUE(link.output.ends_with(std::string("connection: close\r\n\r\n") + row.body));
        EXPECT_NE(link.closedNs, 0);
    }
    router_.setFallback([&](const ZnHttpRequest&) { return fileResponse(file, 0, 9000); });
    Link& link = open();
    link.socket->receive(getOf("/"));
    EXPECT_TRUE(runUntil([&] { return link.closedNs != 0; }));
    EXPECT_TRUE(link.output.ends_with("\r\n\r\n" + std::string(5000, 'x')));
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
    const auto described = [](int status, const char* length, const char* body) {
        ZnHttpResponse response = ZnHttpResponse::text(status, body);
        if (length != nullptr)
            response.headers.insert("content-length", length);
        return response;
    };
    ZnHttpResponse headOnly = described(200, nullptr, "abc");
    headOnly.headOnly = true;
    const struct {
        const char* method;
        ZnHttpResponse response;
        const char* length;
    } kRows[] = {{"HEAD", described(200, nullptr, "abc"), "3"},
                 {"HEAD", described(200, "0", "abc"), "3"},
                 {"HEAD", described(200, "7", ""), "7"},
                 {"HEAD", described(200, "x", ""), "0"},
                 {"HEAD", described(204, nullptr, "abc"), "0"},
                 {"GET", described(204, "7", "abc"), "0"},
                 {"GET", described(304, nullptr, "abc"), "3"},
                 {"GET", described(304, "7", ""), "7"},
                 {"GET", headOnly, "0"},
                 {"HEAD", headOnly, "3"},
                 {"GET", described(200, "7", ""), "0"}};
    for (const auto& [method, response, length] : kRows) {
        router_.setFallback([answer = &response](const ZnHttpRequest&) { return *answer; });
        Link& link = open();
        link.socket->receive(std::string(method) + " / HTTP/1.1\r\n\r\n");
        EXPECT_TRUE(link.output.ends_with("\r\n\r\n"));
        EXPECT_EQ(http_reader::readResponse(link.output, "HEAD").fields["content-length"], length);
    }
}

const std::function<void(Link&)> kEnds[] = {
    [](Link& link) { delete link.session.get(); }, [](Link& link) { delete link.socket.get(); },
    [](Link& link) { link.socket->close(); },      [](Link& link) { link.socket->errorOccurred(10054); },
    [](Link& link) { link.session->close(); },
};

// Whatever ends the connection: the handler returns in peace, and the file that was on its way is closed. The address
// sanitizer is the judge.
TEST_F(ZnHttpSessionTest, HandlerOutlivesTheConnection) {
    enum class When { Running, Parked, Writing, Streaming };
    const TemporaryDirectory directory;
    const ZnString file = directory.file("f", std::string(100'000, 'x'));
    const auto openFiles = [&] {
        const std::filesystem::directory_iterator files("/proc/self/fd");
        return std::count_if(begin(files), end(files), [&](const auto& entry) {
            std::error_code error;
            return std::filesystem::read_symlink(entry, error) == file.str();
        });
    };
    for (const auto& endConnection : kEnds) {
        for (const When when : {When::Running, When::Parked, When::Writing, When::Streaming}) {
            Link& link = open();
            int returnedCount = 0;
            link.session->setRequestHandler([&](const auto& request, const auto& callback) {
                const ZnHttpRequest* const kept = request.get();
                if (when == When::Running)
                    endConnection(link);
                if (when == When::Parked) {
                    ZnTimer::singleShot(0, [&] { endConnection(link); });
                    park(30);
                }
                callback(fileResponse(file, kept->path.size(), 90'000));
                ++returnedCount;
            });
            if (when == When::Writing)
                link.socket->onWrite = [&] { endConnection(link); };
            runOnFiber([&] {
                link.socket->receive(getOf("/1") + getOf("/2"));
                EXPECT_EQ(openFiles(), when == When::Streaming ? 1 : 0);
                if (when == When::Streaming)
                    endConnection(link);
                EXPECT_EQ(openFiles(), 0);
            });
            settle();
            EXPECT_EQ(returnedCount, 1);
            EXPECT_NE(link.closedNs, 0);
            EXPECT_FALSE(link.session);
            EXPECT_EQ(link.output.empty(), when == When::Running || when == When::Parked);
            EXPECT_LT(link.output.size(), 4096U + 200U);
        }
    }
}

TEST_F(ZnHttpSessionTest, ASwitchHandsTheSocketOver) {
    const std::string head = "HTTP/1.1 101 Switching Protocols\r\nconnection: upgrade\r\ncontent-length: 0\r\n\r\n";
    for (const bool hasHead : {true, false}) {
        for (const bool throws : {false, true}) {
            bool taken = false;
            bool wasClosed = false;
            Link& link = open();
            link.session->setRequestHandler([&](const auto&, const auto& callback) {
                ZnHttpResponse response = ZnHttpResponse::text(101, "no part of it");
                response.headers = {{"connection", "upgrade"}};
                response.closeConnection = response.switchProtocols = true;
                response.switchWithoutHead = !hasHead;
                response.onSwitch = [&](ZnAbstractSocket* socket) {
                    taken = socket == link.socket.get();
                    wasClosed = link.session->isClosed();
                    if (throws)
                        throw 1;
                };
                callback(std::move(response));
            });
            if (hasHead)
                link.socket->onWrite = nullptr;
            application_.postEvent([&] {
                link.socket->receive(getOf("/"));
                EXPECT_NE(taken, hasHead);
                if (!hasHead)
                    return;
                link.socket->receive("\x81\x01"); // not HTTP any more, and not the session's
                link.socket->writeFinished();
            });
            EXPECT_TRUE(runUntil([&] { return taken && !link.session; }));
            EXPECT_TRUE(wasClosed);
            settle();
            EXPECT_EQ(link.output, hasHead ? head : "");
            EXPECT_EQ(!link.socket, throws);
            if (link.socket) {
                char bytes[8];
                EXPECT_TRUE(link.socket->isOpen());
                EXPECT_EQ(link.socket->readInto(bytes, sizeof(bytes)), hasHead ? 2U : 0U);
                delete link.socket.get();
            }
        }
    }
}

// With the pool full to the last place the posts are refused.
TEST_F(ZnHttpSessionTest, AnswersFromOtherThreadsWaitForRoom) {
    for (int i = 0; i < 20; ++i)
        openUnanswered().socket->receive(getOf("/"));
    for (
        ZnTask task = [] {}; application_.tryPostOnLane(task, ZnFiberPool::kFirstLane); task = [] {}) {
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

TEST_F(ZnHttpSessionTest, RefusedInputIsAnsweredAndTheRestDiscarded) {
    const struct {
        const char *input, *status, *body;
        bool closesAtOnce; // all of the peer's words were read, as far as one can tell
    } kRows[] = {
        {"GET\r\n\r\n", "400 Bad Request", "Malformed request line", true},
        {"POST / HTTP/1.1\r\ncontent-type: multipart/form-data\r\ncontent-length: 1\r\n\r\nx", "400 Bad Request",
         "Missing multipart boundary", true},
        {"POST / HTTP/1.1\r\ncontent-length: 9000000\r\n\r\n", "413 Payload Too Large", "Body too large", false}};
    for (const auto& row : kRows) {
        Link& link = open();
        link.socket->receive(row.input);
        EXPECT_TRUE(link.output.starts_with(std::string("HTTP/1.1 ") + row.status)) << link.output;
        EXPECT_TRUE(link.output.ends_with(std::string("connection: close\r\n\r\n") + row.body)) << link.output;
        EXPECT_EQ(link.closedNs != 0, row.closesAtOnce);
    }
    Link& slow = links_.back();
    Link& flood = open();
    flood.socket->receive(kRows[2].input);
    for (int i = 0; i < 40 && flood.closedNs == 0; ++i)
        flood.socket->receive(std::string(1024 * 1024, 'x'));
    EXPECT_NE(flood.closedNs, 0);
    slow.socket->receive("GET / HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(runUntil([&] { return slow.closedNs != 0; }, 2000));
    EXPECT_EQ(slow.output.find("HTTP/1.1", 1), std::string::npos);
}

TEST_F(ZnHttpSessionTest, AClientThatHoldsItsBodyBackIsToldToGoOn) {
    const std::string post = "POST / HTTP/1.1\r\nexpect: 100-Continue\r\n";
    const std::string interim = "HTTP/1.1 100 Continue\r\n\r\n";
    const struct {
        std::string head, output, body;
    } kRows[] = {// what has come before the body
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

TEST_F(ZnHttpSessionTest, TimeOuts) {
    constexpr int kOff = 0, kSoon = 100, kLate = 60000;
    const std::string get = getOf("/");
    const std::string post = "POST / HTTP/1.1\r\ncontent-length:2\r\n\r\nx";
    const struct {
        const char* name;
        ZnHttpTimeouts timeouts; // header, body, keep-alive, write
        std::string input;
        bool stallsWrites;
        const char* lastAnswer; // null: the connection stays open
    } kRows[] = {
        {"handler", {kLate, kSoon, kLate, kLate}, getOf("/never"), false, "504 Gateway Timeout"},
        {"handler, with a time of its own",
         {kLate, kLate, kLate, kLate, kSoon},
         getOf("/never"),
         false,
         "504 Gateway Timeout"},
        {"handler, with more time than a body", {kLate, kSoon, kLate, kLate, kLate}, getOf("/never"), false, nullptr},
        {"handler has the say", {kSoon, kOff, kSoon, kSoon}, getOf("/never"), false, nullptr},
        {"idle behind a request", {kSoon, kLate, kLate, kLate}, get, false, "408 Request Timeout"},
        {"idle, silently", {kOff, kLate, kSoon, kLate}, "", false, ""},
        {"idle, both", {kSoon, kLate, kSoon, kLate}, "", false, "408 Request Timeout"},
        {"request line is not idle", {kOff, kSoon, kSoon, kSoon}, "GET", false, nullptr},
        {"headers", {kSoon, kLate, kLate, kLate}, "GET / HTTP/1.1\r\n", false, "408 Request Timeout"},
        {"body", {kLate, kSoon, kLate, kLate}, post, false, "408 Request Timeout"},
        {"write", {kLate, kLate, kLate, kSoon}, get, true, "200 OK"},
        {"write has the say", {kSoon, kSoon, kSoon, kOff}, get, true, nullptr},
        {"none", {kOff, -1, kOff, kOff}, "", false, nullptr},
    };
    router_.addRoute("GET", "/", echoOf);
    std::vector<Link*> links;
    for (const auto& row : kRows) {
        links.push_back(row.input == getOf("/never") ? &openUnanswered(row.timeouts) : &open(nullptr, row.timeouts));
        if (row.stallsWrites)
            links.back()->socket->onWrite = nullptr;
        links.back()->socket->receive(row.input);
    }
    settle(450);
    for (std::size_t i = 0; i < links.size(); ++i) {
        SCOPED_TRACE(kRows[i].name);
        ASSERT_EQ(links[i]->closedNs != 0, kRows[i].lastAnswer != nullptr);
        if (links[i]->closedNs == 0)
            continue;
        EXPECT_GE(links[i]->closedNs - links[i]->openedNs, 200'000'000); // the first tick, not 101 ms
        const std::size_t lastHead = links[i]->output.rfind("HTTP/1.1 ");
        const std::string lastAnswer = lastHead == std::string::npos ? "" : links[i]->output.substr(lastHead + 9);
        EXPECT_EQ(lastAnswer.substr(0, lastAnswer.find("\r\n")), kRows[i].lastAnswer);
    }
    for (const auto& callback : callbacks_)
        callback(ZnHttpResponse::text(200, "too late"));
    EXPECT_EQ(links[0]->output.find("too late"), std::string::npos);
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

// The time for the next request counts from the start of the last one, so a late answer leaves none; the timer was
// armed for the handler's time. The peer has not been slow, so it is told nothing.
TEST_F(ZnHttpSessionTest, AConnectionIsGivenUpBehindALateAnswer) {
    router_.addRoute("GET", "/", [this](const ZnHttpRequest& request) { return park(300), echoOf(request); });
    Link& link = open(nullptr, {100, 60000, 60000, 60000});
    runOnFiber([&] { link.socket->receive(getOf("/")); });
    EXPECT_EQ(link.output, answerTo("/"));
    EXPECT_TRUE(runUntil([&] { return link.closedNs != 0; }, 2000));
    EXPECT_EQ(link.output, answerTo("/"));
}

} // namespace
