// The agent under many clients at once, and its end in the middle of that.

#include "agent/McpMessages.h"
#include "core/fs/TemporaryDirectory.h"
#include "support/TestProgram.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <sys/resource.h>

namespace {

/// One keep-alive connection; reads block for at most 20 seconds.
class Client {
public:
    explicit Client(const std::string& port) : fd_(connectToLoopback(static_cast<unsigned short>(std::stoi(port)))) {
        const timeval limit = {20, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    }
    ~Client() { ::close(fd_); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void post(const std::string& body, const std::string& session, const std::string& moreHeaders = {}) {
        const std::string request = "POST /mcp HTTP/1.1\r\nhost: x\r\n" + moreHeaders +
                                    (session.empty() ? "" : "mcp-session-id: " + session + "\r\n") +
                                    "content-length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
        EXPECT_EQ(::send(fd_, request.data(), request.size(), MSG_NOSIGNAL), static_cast<ssize_t>(request.size()));
    }
    std::string call(const std::string& body, const std::string& session, const std::string& moreHeaders = {}) {
        post(body, session, moreHeaders);
        return answer();
    }
    /// Head and body of the next answer; empty when the connection ends or the time is up.
    std::string answer() { return receiveMessage(fd_); }
    bool hasAnswer() const {
        char byte = 0;
        return ::recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 1;
    }

private:
    int fd_;
};

std::string slowCall(int delayMs) {
    return bridgeCall("echo", toolCall("slow", R"({"delayMs":)" + std::to_string(delayMs) + "}"));
}

/// The agent with the sample service behind it, as programs.
class AgentLoad : public ::testing::Test {
protected:
    AgentLoad() {
        rlimit descriptors = {};
        ::getrlimit(RLIMIT_NOFILE, &descriptors);
        descriptors.rlim_cur = descriptors.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &descriptors);
        descriptorLimit_ = static_cast<std::size_t>(descriptors.rlim_max);
        const std::string servicePort = freePort();
        service_.emplace(ECHO_SERVICE_PROGRAM, std::vector<std::string>{"--port=" + servicePort});
        service_->readLine();
        port_ = freePort();
        const ZnString services =
            directory_.file("services.json",
                            R"({"services":[{"id":"echo","endpoint":"http://127.0.0.1:)" + servicePort + R"(/mcp"}]})");
        agent_.emplace(BRELT_AGENT_PROGRAM,
                       std::vector<std::string>{"--port=" + port_, "--services_file=" + services.str()});
        agent_->readLine();
        session_ = sessionOf(Client(port_).call(kInitialize, ""));
    }

    std::vector<std::unique_ptr<Client>> connect(std::size_t count) {
        std::vector<std::unique_ptr<Client>> clients;
        while (clients.size() < count)
            clients.push_back(std::make_unique<Client>(port_));
        return clients;
    }
    bool pingWorks() { return holds(Client(port_).call(kPing, session_), "\"result\": {}"); }
    /// How many of the clients get an answer that holds `part`.
    static std::size_t countAnswers(const std::vector<std::unique_ptr<Client>>& clients, const char* part) {
        return static_cast<std::size_t>(std::count_if(
            clients.begin(), clients.end(), [&](const auto& client) { return holds(client->answer(), part); }));
    }
    /// Ends both programs; their exit codes also tell what the leak check found.
    void expectOrderlyEnd(int signalNumber = SIGTERM) {
        EXPECT_EQ(agent_->exitCode(signalNumber), 0);
        EXPECT_EQ(agent_->restOfOutput(), "");
        EXPECT_EQ(service_->exitCode(signalNumber), 0);
    }

    std::size_t descriptorLimit_ = 0;
    const TemporaryDirectory directory_;
    std::string port_;
    std::string session_;
    std::optional<TestProgram> service_;
    std::optional<TestProgram> agent_;
};

TEST_F(AgentLoad, CallsBeyondTheBoundAreRefusedAndTheAgentStaysResponsive) {
    auto clients = connect(700);
    for (const auto& client : clients)
        client->post(slowCall(4000), session_);
    // Refusals come at once, and pings are answered, while the calls within the bound are still waiting.
    std::vector<std::unique_ptr<Client>> refused;
    for (int round = 0; round < 100 && refused.size() < 300; ++round) {
        EXPECT_TRUE(pingWorks());
        for (auto& client : clients) {
            if (client->hasAnswer())
                refused.push_back(std::exchange(client, nullptr));
        }
        std::erase(clients, nullptr);
        ::usleep(20000);
    }
    EXPECT_EQ(clients.size(), 400U);
    EXPECT_EQ(countAnswers(refused, R"(: {"error": "Too many bridge calls in flight","statusCode": 503})"), 300U);
    EXPECT_EQ(countAnswers(clients, "\"transportOk\": true"), 400U);
    EXPECT_TRUE(holds(clients[0]->call(slowCall(0), session_), "\"transportOk\": true"));
    expectOrderlyEnd();
}

TEST_F(AgentLoad, ThousandsOfConnectionsBecomingReadyAtOnceAreAllAnswered) {
    const std::size_t count = std::min<std::size_t>(IS_SANITIZED ? 2000 : 5000, descriptorLimit_ - 200);
    long firstResidentKib = 0;
    for (int round = 0; round < 3; ++round) {
        auto clients = connect(count);
        agent_->pause(); // so that all of them are ready when it looks again
        for (const auto& client : clients)
            client->post(kPing, session_);
        agent_->resume();
        EXPECT_EQ(countAnswers(clients, "\"result\": {}"), count);
        clients.clear();
        EXPECT_TRUE(pingWorks());
        if (round == 0)
            firstResidentKib = agent_->residentKib();
    }
    if (!IS_SANITIZED) {
        EXPECT_LT(agent_->residentKib(), firstResidentKib * 5 / 4);
    }
    expectOrderlyEnd(); // without a line in the log
}

TEST_F(AgentLoad, LargeAndDeepValuesPassOrAreRefusedClearly) {
    Client client(port_);
    const std::string large(6 * 1024 * 1024, 'x');
    const std::string answer =
        client.call(bridgeCall("echo", toolCall("echo", R"({"text":")" + large + "\"}")), session_);
    EXPECT_TRUE(holds(answer, "\"text\": \"" + large + "\""));

    const auto nested = [](std::size_t depth) {
        return bridgeCall("echo", rpcMessage("ping", std::string(depth, '[') + "1" + std::string(depth, ']')));
    };
    // With the four objects around it the deepest that is read.
    EXPECT_TRUE(holds(client.call(nested(252), session_), "\"transportOk\": true"));
    for (const std::size_t depth : {253U, 1000000U})
        EXPECT_TRUE(holds(client.call(nested(depth), session_), R"({"error": "Expected a single JSON-RPC object"})"));
    expectOrderlyEnd();
}

class AgentStop : public AgentLoad, public ::testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Signals, AgentStop, ::testing::Values(SIGTERM, SIGINT));

TEST_P(AgentStop, EndsParkedCallsFirst) {
    auto parked = connect(200);
    for (const auto& client : parked)
        client->post(slowCall(60000), session_);
    auto busy = connect(50);
    for (int round = 0; round < 5; ++round) {
        for (const auto& client : busy)
            client->post(kPing, session_);
    }
    EXPECT_TRUE(pingWorks());
    expectOrderlyEnd(GetParam());
    EXPECT_EQ(countAnswers(parked, "\"errorCode\": -1002"), parked.size());
}

} // namespace
