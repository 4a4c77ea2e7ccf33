// Long calls: progress on its way, cancelling, and streams that a service ends in the middle.

#include "agent/AgentFixture.h"
#include "agent/NotingService.h"
#include "core/io/http/ZnEventStreamParser.h"
#include "support/Loopback.h"

namespace {

class McpProgressTest : public AgentFixture {
protected:
    void SetUp() override {
        AgentFixture::SetUp();
        agent_.setInterop(true);
        agent_.setTools({true, true});
        agent_.setProgress(true);
        Peer::dispatcher(agent_).setObserver(last_);
        setServices(R"({"services":[{"id":"s","timeoutMs":1500,"url":")" + service_.url() + "\"}]}");
        session_ = newSession();
    }
    static std::string callWith(const std::string& token) {
        return rpcMessage("tools/call", R"({"_meta":{"progressToken":)" + token +
                                            R"(},"name":"bridge_call_tool","arguments":{"serviceId":"s","name":"t"}})");
    }
    /// Has the message answered on a fiber, by a front that takes messages.
    void begin(const std::string& message) {
        answer_.clear();
        notes_.clear();
        caller_ = McpCaller();
        caller_.setSink([this](const ZnByteArray& note) {
            notes_.push_back(note.toZnString().str());
            return true;
        });
        ASSERT_TRUE(application_.postEvent([this, message] {
            McpMessage toAnswer(ZnByteArray(message), caller_);
            toAnswer.sessionId = session_;
            const McpReply reply = Peer::dispatcher(agent_).answer(std::move(toAnswer));
            answer_ = std::to_string(reply.status) + " " + reply.text.toZnString().str();
        }));
    }
    std::string answerTo(const std::string& message) {
        begin(message);
        EXPECT_TRUE(runUntil([this] { return !answer_.empty(); }));
        return answer_;
    }
    static std::string progress(const std::string& token, int value) {
        return R"({"jsonrpc":"2.0","method":"notifications/progress","params":{"progressToken":)" + token +
               R"(,"progress":)" + std::to_string(value) + "}}";
    }
    static void sendEvents(ZnHttpContext& context, const std::string& text) {
        context.send(ZnByteArray(std::string_view(text)), "text/event-stream", 200);
    }
    static std::string idOf(const std::string& body) {
        const std::size_t at = body.find("\"id\": ") + 6;
        return body.substr(at, body.find(',', at) - at);
    }
    static std::string result(const std::string& id) {
        return "data: {\"jsonrpc\":\"2.0\",\"id\":" + id + ",\"result\":{\"content\":[]}}\n\n";
    }
    /// The service ends the stream once its client has got that far; the rest is what GETs bring, in turn.
    void endStreamBehind(const std::string& text, std::vector<std::string> rest) {
        service_.answerNext("tools/call", [this, text, rest](ZnHttpContext& context, const std::string& body) {
            service_.onGet = [id = idOf(body),
                              rest = std::deque<std::string>(rest.begin(), rest.end())](ZnHttpContext& get) mutable {
                if (rest.empty())
                    return get.sendStatus(405);
                const std::string piece = rest.front();
                rest.pop_front();
                sendEvents(get, piece == "answer" ? result(id) : piece);
            };
            sendEvents(context, text);
        });
    }

    NotingService service_;
    std::string session_;
    McpCaller caller_;
    std::string answer_;
    std::vector<std::string> notes_;
};

TEST_F(McpProgressTest, ProgressComesUnderTheClientsToken) {
    const struct {
        std::string token, shown;
    } kRows[] = {{"7", "7"}, {R"("a\"b")", R"("a\"b")"}, {"null", ""}, {"1.5", ""}, {"{}", ""}};
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.token);
        service_.answerNext("tools/call", [](ZnHttpContext& context, const std::string& body) {
            const std::string id = idOf(body);
            sendEvents(context, "data: " + progress(id, 1) + "\n\ndata: " + progress("\"other\"", 2) + "\n\ndata: [" +
                                    progress(id, 3) + "]\n\n" + result(id));
        });
        EXPECT_TRUE(holds(answerTo(callWith(row.token)), R"("result": {"content": []})"));
        std::vector<std::string> expected;
        for (const char* value : {"1", "3"})
            expected.push_back(R"({"jsonrpc": "2.0","method": "notifications/progress","params": {"progress": )" +
                               std::string(value) + R"(,"progressToken": )" + row.shown + "}}");
        EXPECT_EQ(notes_, row.shown.empty() ? std::vector<std::string>() : expected);
        EXPECT_EQ(holds(service_.lastBody, "progressToken"), !row.shown.empty());
        std::size_t byteCount = answer_.size() - std::string("200 ").size();
        for (const std::string& note : notes_)
            byteCount += note.size();
        EXPECT_EQ(last_->request.bytesOut, byteCount);
    }
}

TEST_F(McpProgressTest, WhoIsNotAwaitedAnyMoreIsCancelledAtTheService) {
    answerTo(callWith("1")); // for the handshake
    for (const std::string way : {"cancelled", "left", "late"}) {
        SCOPED_TRACE(way);
        service_.holdNext("tools/call");
        service_.seen.clear();
        begin(callWith("1"));
        EXPECT_TRUE(runUntil([this] { return !service_.seen.empty(); }));
        const std::string upstreamId = idOf(service_.lastBody);
        if (way == "left")
            caller_.leave();
        if (way == "cancelled")
            post(R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":1}})", session_);
        EXPECT_TRUE(runUntil([this] { return service_.seen.size() == 2; }));
        EXPECT_EQ(service_.seen.back(), "notifications/cancelled u1 2025-06-18");
        EXPECT_TRUE(holds(service_.lastBody, R"("requestId": )" + upstreamId + "}"));
        EXPECT_TRUE(runUntil([this] { return !answer_.empty(); }));
        EXPECT_EQ(answer_.substr(0, 4), way == "cancelled" ? "202 " : "200 ");
        service_.release();
        EXPECT_TRUE(runUntil([this] { return !service_.isHolding; }));
    }
}

TEST_F(McpProgressTest, AStreamAndItsCallEndWithTheClient) {
    answerTo(callWith("1")); // for the handshake
    ASSERT_TRUE(routes_.tcpServer().listen("127.0.0.1", 0));
    for (const bool resets : {false, true}) {
        const int client = connectToLoopback(routes_.tcpServer().localPort());
        service_.holdNext("tools/call");
        service_.seen.clear();
        const std::string body = callWith("1");
        const std::string head =
            "POST /mcp HTTP/1.1\r\nHost: a\r\nAccept: text/event-stream\r\nMcp-Session-Id: " + session_ +
            "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n";
        EXPECT_GT(::send(client, (head + body).data(), (head + body).size(), 0), 0);
        EXPECT_TRUE(runUntil([this] { return service_.isHolding; }));
        if (resets)
            resetOnClose(client);
        ::close(client);
        EXPECT_TRUE(runUntil([this] { return service_.seen.size() == 2; }));
        EXPECT_EQ(service_.seen.back(), "notifications/cancelled u1 2025-06-18");
        service_.release();
        EXPECT_TRUE(runUntil([this] { return !service_.isHolding; }));
    }
}

TEST_F(McpProgressTest, StreamsAreTakenUpAgainFromTheLastEvent) {
    const std::string begun = "id: e1\nretry: 60\ndata: \n\n";
    const struct {
        const char* name;
        std::string text;
        std::vector<std::string> rest;
        std::vector<std::string> asked; // the last event ids
        bool isAnswered;
    } kRows[] = {
        {"once", begun, {"answer"}, {"e1"}, true},
        {"cut again", begun, {"id: e2\ndata: {}\n\n", ": nothing new\n\n", "answer"}, {"e1", "e2", "e2"}, true},
        {"half an event counts for nothing", begun + "id: e9\ndata: {", {"answer"}, {"e1"}, true},
        {"refused", begun, {}, {"e1"}, false},
        {"no id", "retry: 60\ndata: {}\n\n", {"answer"}, {}, false},
        {"an id that is no header", "id: a\x01z\ndata: {}\n\n", {"answer"}, {}, false},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        endStreamBehind(row.text, row.rest);
        service_.lastEventIds.clear();
        const std::string answer = answerTo(callWith("1"));
        EXPECT_EQ(service_.lastEventIds, row.asked);
        EXPECT_TRUE(holds(answer, row.isAnswered ? R"("result": {"content": []})" : "ended without the answer"))
            << answer;
    }
    endStreamBehind("id: e1\nretry: 0\ndata: \n\n", std::vector<std::string>(1000, ":\n\n"));
    service_.lastEventIds.clear();
    EXPECT_TRUE(holds(answerTo(callWith("1")), R"("statusCode": 504)")) << "not longer than the time limit";
    EXPECT_LT(service_.lastEventIds.size(), 40U) << "and not as fast as it can be asked";
}

// Over HTTP the answer is a stream where the client reads streams, and is as before where it does not.
TEST_F(McpProgressTest, OverHttpTheAnswerBecomesAStream) {
    for (const bool accepts : {true, false}) {
        const std::string message = callWith("7");
        const Headers headers = {{"mcp-session-id", session_}, {"accept", accepts ? "a/b, Text/Event-Stream" : "*/*"}};
        std::shared_ptr<ZnHttpResponse> response;
        ASSERT_TRUE(application_.postEvent(
            [&] { response = std::make_shared<ZnHttpResponse>(call("POST", "/mcp", headers, message)); }));
        EXPECT_TRUE(runUntil([&] { return response != nullptr; }));
        EXPECT_EQ(response->switchProtocols, accepts);
        EXPECT_EQ(holds(bodyOf(*response), R"("result": {"content")"), !accepts);
        response.reset(); // a stream that never begins is told of, too
        EXPECT_EQ(last_->request.status, accepts ? 0 : 200);
    }
}

} // namespace
