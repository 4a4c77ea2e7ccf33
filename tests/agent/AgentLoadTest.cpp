// The agent under many clients at once, and its end in the middle of that.

#include "agent/TestProgram.h"

#include <arpa/inet.h>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif
#else
constexpr bool kIsSanitized = false;
#endif

/// One keep-alive connection; reads block for at most 20 seconds.
class Client {
public:
    explicit Client(const std::string& port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(port)));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        isConnected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    }
    ~Client() { ::close(fd_); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool isConnected() const { return isConnected_; }
    void post(const std::string& body, const std::string& session, const std::string& moreHeaders = {}) {
        const std::string request = "POST /mcp HTTP/1.1\r\nhost: x\r\n" + moreHeaders +
                                    (session.empty() ? "" : "mcp-session-id: " + session + "\r\n") +
                                    "content-length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
        EXPECT_EQ(::send(fd_, request.data(), request.size(), MSG_NOSIGNAL), static_cast<ssize_t>(request.size()));
    }
    /// Head and body of the next answer; empty when the connection ends or the time is up.
    std::string answer() {
        std::string input;
        for (std::size_t wanted = 0; wanted == 0 || input.size() < wanted;) {
            pollfd waitFor = {fd_, POLLIN, 0};
            char buffer[65536];
            const ssize_t got = ::poll(&waitFor, 1, 20000) == 1 ? ::recv(fd_, buffer, sizeof(buffer), 0) : -1;
            if (got <= 0)
                return {};
            input.append(buffer, static_cast<std::size_t>(got));
            const std::size_t headEnd = input.find("\r\n\r\n");
            const std::size_t lengthAt = input.find("content-length: ");
            if (headEnd != std::string::npos && lengthAt < headEnd)
                wanted = headEnd + 4 + std::stoul(input.substr(lengthAt + std::strlen("content-length: "), 20));
        }
        return input;
    }
    bool hasAnswer() const {
        pollfd waitFor = {fd_, POLLIN, 0};
        return ::poll(&waitFor, 1, 0) == 1;
    }

private:
    int fd_;
    bool isConnected_ = false;
};

const char* const kPing = R"({"jsonrpc":"2.0","id":1,"method":"ping"})";

std::string slowCall(int delayMs) {
    return R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"bridge.rpc","arguments":{"serviceId":"echo",)"
           R"("request":{"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"slow","arguments":{"delayMs":)" +
           std::to_string(delayMs) + "}}}}}}";
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
        servicePort_ = freePort();
        service_ = std::make_unique<TestProgram>(ECHO_SERVICE_PROGRAM, std::vector<std::string>{"--port=" + servicePort_});
        service_->readLine();
        std::ofstream(servicesFile_) << R"({"services":[{"id":"echo","endpoint":"http://127.0.0.1:)" << servicePort_
                                     << R"(/mcp"}]})";
        port_ = freePort();
        agent_ = std::make_unique<TestProgram>(
            BRELT_AGENT_PROGRAM, std::vector<std::string>{"--port=" + port_, "--services_file=" + servicesFile_});
        agent_->readLine();
        ::unlink(servicesFile_.c_str());
        Client client(port_);
        client.post(R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18"}})", "");
        const std::string answer = client.answer();
        const std::size_t at = answer.find("mcp-session-id: ");
        session_ = at == std::string::npos ? "" : answer.substr(at + std::strlen("mcp-session-id: "), 48);
    }

    std::vector<std::unique_ptr<Client>> connect(std::size_t count) {
        std::vector<std::unique_ptr<Client>> clients;
        while (clients.size() < count) {
            clients.push_back(std::make_unique<Client>(port_));
            EXPECT_TRUE(clients.back()->isConnected());
        }
        return clients;
    }
    bool pingWorks() {
        Client client(port_);
        client.post(kPing, session_);
        return client.answer().find("\"result\": {}") != std::string::npos;
    }
    /// Ends both programs; their exit codes also tell what the leak check found.
    void expectOrderlyEnd(int signalNumber = SIGTERM) {
        agent_->signal(signalNumber);
        EXPECT_EQ(agent_->exitCode(), 0);
        EXPECT_EQ(agent_->restOfOutput(), "");
        service_->signal(signalNumber);
        EXPECT_EQ(service_->exitCode(), 0);
    }

    std::size_t descriptorLimit_ = 0;
    std::string servicesFile_ = "agent_load_services_" + std::to_string(::getpid()) + ".json";
    std::string servicePort_;
    std::string port_;
    std::string session_;
    std::unique_ptr<TestProgram> service_;
    std::unique_ptr<TestProgram> agent_;
};

TEST_F(AgentLoad, CallsBeyondTheBoundAreRefusedAndTheAgentStaysResponsive) {
    auto clients = connect(700);
    for (const auto& client : clients)
        client->post(slowCall(4000), session_);
    // Refusals come at once, and pings are answered, while the calls within the bound are still waiting.
    std::size_t refused = 0;
    std::vector<Client*> waiting;
    for (int round = 0; round < 100 && refused < 300; ++round) {
        EXPECT_TRUE(pingWorks());
        refused = 0;
        for (const auto& client : clients)
            refused += client->hasAnswer() ? 1 : 0;
        ::poll(nullptr, 0, 20);
    }
    std::size_t served = 0;
    std::size_t tooMany = 0;
    for (const auto& client : clients) {
        const std::string answer = client->answer();
        served += answer.find("\"transportOk\": true") != std::string::npos ? 1 : 0;
        tooMany += answer.find(R"("structuredContent": {"error": "Too many bridge calls in flight","statusCode": 503})") !=
                           std::string::npos
                       ? 1
                       : 0;
    }
    EXPECT_EQ(refused, 300U);
    EXPECT_EQ(served, 400U);
    EXPECT_EQ(tooMany, 300U);
    clients[0]->post(slowCall(0), session_);
    EXPECT_NE(clients[0]->answer().find("\"transportOk\": true"), std::string::npos);
    expectOrderlyEnd();
}

TEST_F(AgentLoad, ThousandsOfConnectionsBecomingReadyAtOnceAreAllAnswered) {
    const std::size_t count = std::min<std::size_t>(kIsSanitized ? 2000 : 5000, descriptorLimit_ - 200);
    long firstResidentKib = 0;
    for (int round = 0; round < 3; ++round) {
        auto clients = connect(count);
        agent_->pause(); // so that all of them are ready when it looks again
        for (const auto& client : clients)
            client->post(kPing, session_);
        agent_->resume();
        std::size_t answered = 0;
        for (const auto& client : clients)
            answered += client->answer().find("\"result\": {}") != std::string::npos ? 1 : 0;
        EXPECT_EQ(answered, count);
        clients.clear();
        EXPECT_TRUE(pingWorks());
        if (round == 0)
            firstResidentKib = agent_->residentKib();
    }
    if (!kIsSanitized) {
        EXPECT_LT(agent_->residentKib(), firstResidentKib * 5 / 4);
    }
    expectOrderlyEnd(); // without a line in the log
}

TEST_F(AgentLoad, LargeAndDeepValuesPassOrAreRefusedClearly) {
    Client client(port_);
    const std::string large(6 * 1024 * 1024, 'x');
    client.post(R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"bridge.rpc","arguments":{"serviceId":)"
                R"("echo","request":{"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"echo","arguments":)"
                R"({"text":")" +
                    large + R"("}}}}}})",
                session_);
    EXPECT_NE(client.answer().find("\"text\": \"" + large + "\""), std::string::npos);

    const auto nested = [](std::size_t depth) { return std::string(depth, '[') + "1" + std::string(depth, ']'); };
    const auto call = [&](std::size_t depth) {
        return R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"bridge.rpc","arguments":{"serviceId":)"
               R"("echo","request":{"jsonrpc":"2.0","id":1,"method":"ping","params":)" +
               nested(depth) + "}}}}";
    };
    client.post(call(252), session_); // with the four objects around it the deepest that is read
    EXPECT_NE(client.answer().find("\"transportOk\": true"), std::string::npos);
    for (const std::size_t depth : {253U, 1000000U}) {
        client.post(call(depth), session_);
        EXPECT_NE(client.answer().find(R"({"error": "Expected a single JSON-RPC object"})"), std::string::npos);
    }
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
    std::size_t told = 0;
    for (const auto& client : parked)
        told += client->answer().find("\"errorCode\": -1002") != std::string::npos ? 1 : 0;
    EXPECT_EQ(told, parked.size());
}

TEST(AgentSecrets, StayOutOfEveryAnswerAndLogLine) {
    const std::string servicesFile = "agent_secret_services_" + std::to_string(::getpid()) + ".json";
    std::ofstream(servicesFile) << R"({"services":[{"id":"s","bearerToken":"hush-upstream","endpoint":"http://127.0.0.1:1/"}]})";
    ::setenv("ZN_LOGGING_RULES", "*.all=true", 1);
    const std::string port = freePort();
    TestProgram agent(BRELT_AGENT_PROGRAM,
                      {"--port=" + port, "--services_file=" + servicesFile, "--mcp_token=hush-client"});
    ::unsetenv("ZN_LOGGING_RULES");
    std::string seen = agent.readLine();
    ::unlink(servicesFile.c_str());
    Client client(port);
    const std::string authorization = "authorization: Bearer hush-client\r\n";
    client.post(R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18"}})", "",
                authorization);
    seen += client.answer();
    const std::size_t at = seen.find("mcp-session-id: ");
    ASSERT_NE(at, std::string::npos);
    const std::string session = seen.substr(at + std::strlen("mcp-session-id: "), 48);
    for (const char* tool : {"bridge.list_services", "bridge.get_service", "bridge.rpc"}) {
        client.post(R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":")" + std::string(tool) +
                        R"(","arguments":{"serviceId":"s","request":{}}}})",
                    session, authorization);
        seen += client.answer();
    }
    EXPECT_NE(seen.find("\"errorCode\": 10061"), std::string::npos);
    client.post(kPing, session, "authorization: Bearer hush-wrong\r\n");
    seen += client.answer();
    EXPECT_NE(seen.find("401"), std::string::npos);
    agent.terminate();
    EXPECT_EQ(agent.exitCode(), 0);
    seen += agent.restOfOutput();
    EXPECT_EQ(seen.find("hush"), std::string::npos) << seen;
}

} // namespace
