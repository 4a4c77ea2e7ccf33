// Messages on standard input: the program as a client starts it.

#include "agent/McpMessages.h"
#include "core/fs/TemporaryDirectory.h"
#include "support/TestProgram.h"

#include <sys/socket.h>
#include <thread>

namespace {

const std::string kTooLarge =
    R"({"error": {"code": -32600,"message": "The message is too large"},"id": null,"jsonrpc": "2.0"})";

const std::string kModernParams = R"({"_meta":{"io.modelcontextprotocol/protocolVersion":"2026-07-28",)"
                                  R"("io.modelcontextprotocol/clientCapabilities":{}}})";

std::string pong(const std::string& id) {
    return R"({"id": )" + id + R"(,"jsonrpc": "2.0","result": {}})";
}

std::string ping(const std::string& id) {
    return R"({"jsonrpc":"2.0","id":)" + id + R"(,"method":"ping"})";
}

std::string refusal(const std::string& id, const std::string& text) {
    return R"({"error": {"code": -32600,"message": ")" + text + R"("},"id": )" + id + R"(,"jsonrpc": "2.0"})";
}

/// The agent with its standard streams in the hands of the test. Standard error is that of the test.
class StdioAgent {
public:
    enum class Streams { Pipes, Sockets };
    explicit StdioAgent(std::vector<std::string> arguments = {"--services_file="}, Streams streams = Streams::Pipes) {
        int input[2];
        int output[2];
        if (streams == Streams::Sockets) {
            EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, input), 0);
            EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, output), 0);
        } else {
            EXPECT_EQ(::pipe2(input, O_CLOEXEC) | ::pipe2(output, O_CLOEXEC), 0);
        }
        arguments.insert(arguments.begin(), {BRELT_AGENT_PROGRAM, "--stdio", "--mcp_interop"});
        std::vector<char*> argv;
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(input[0], STDIN_FILENO);
            ::dup2(output[1], STDOUT_FILENO);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        ::close(input[0]);
        ::close(output[1]);
        input_ = input[1];
        output_ = output[0];
    }
    ~StdioAgent() {
        endInput();
        leave();
        if (pid_ > 0)
            exitCode(SIGKILL);
    }
    StdioAgent(const StdioAgent&) = delete;
    StdioAgent& operator=(const StdioAgent&) = delete;

    void type(std::string text) {
        text += '\n';
        for (std::size_t sent = 0; sent < text.size();) {
            const ssize_t written = ::write(input_, text.data() + sent, text.size() - sent);
            ASSERT_GT(written, 0);
            sent += static_cast<std::size_t>(written);
        }
    }
    std::string initialize() {
        type(kInitialize);
        return readLine();
    }
    /// Empty at the end.
    std::string readLine() {
        std::size_t end = 0;
        while ((end = read_.find('\n')) == std::string::npos) {
            char buffer[65536];
            const ssize_t got = ::read(output_, buffer, sizeof(buffer));
            if (got <= 0)
                return std::exchange(read_, "");
            read_.append(buffer, static_cast<std::size_t>(got));
        }
        const std::string line = read_.substr(0, end);
        read_.erase(0, end + 1);
        return line;
    }
    void endInput() { ::close(std::exchange(input_, -1)); }
    void leave() { ::close(std::exchange(output_, -1)); }
    int exitCode(int signalNumber = 0) {
        ::kill(pid_, signalNumber);
        int status = 0;
        ::waitpid(std::exchange(pid_, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    long residentKib() const {
        std::ifstream file("/proc/" + std::to_string(pid_) + "/statm");
        long pages[2] = {};
        file >> pages[0] >> pages[1];
        return pages[1] * (::sysconf(_SC_PAGESIZE) / 1024);
    }

private:
    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    std::string read_;
};

/// An allowlist with a service "slow" that never answers, for as long as the object lives.
class SlowService {
public:
    SlowService() : listener_(listenOnLoopback(&port_)) {}
    ~SlowService() { ::close(listener_); }
    SlowService(const SlowService&) = delete;
    SlowService& operator=(const SlowService&) = delete;
    std::string allowlist() const {
        return "--services_file=" + directory_
                                        .file("s.json", R"({"services":[{"id":"slow","url":"http://127.0.0.1:)" +
                                                            std::to_string(port_) + R"(/","timeoutMs":60000}]})")
                                        .str();
    }

private:
    const TemporaryDirectory directory_;
    unsigned short port_ = 0;
    const int listener_;
};

TEST(AgentStdio, OneLineForEachAnswerAndNoneForOthers) {
    const struct {
        std::string line, answer; // an empty answer: there is none
    } kRows[] = {
        {ping("0"), refusal("0", "Not initialized")},
        {kInitialize, "\"protocolVersion\": \"2025-06-18\""},
        {rpcMessage("notifications/initialized", "{}").erase(16, 7), ""},
        {"", ""},
        {" \r", ""},
        {ping("1") + "\r", pong("1")},
        {"{", refusal("null", "Expected a single JSON-RPC object")},
        {"[" + ping("2") + "]", refusal("null", "Expected a single JSON-RPC object")},
        {R"({"jsonrpc":"2.0","method":"x"})", ""},
        {R"({"jsonrpc":"2.0","id":1,"result":{}})", ""},
        {R"({"jsonrpc":"1.0","id":"q","method":"ping"})",
         R"({"error": {"code": -32600,"message": "Invalid Request"},"id": "q","jsonrpc": "2.0"})"},
        {toolCall("bridge_list_services", "{}"), R"("structuredContent": {"services": []})"},
        {toolCall("bridge.list_services", "{}"), R"("structuredContent": {"services": []})"},
        {rpcMessage("ping", kModernParams), R"("code": -32601,"message": "Method not found"},"id": 1,)"},
        {rpcMessage("tools/call", R"({"name":"x",)" + kModernParams.substr(1)),
         R"("message": "Unknown tool"},"id": 1,)"},
        {ping("3") + std::string(1 << 24, ' '), kTooLarge},
        {ping("4") + std::string((1 << 24) - ping("4").size(), ' '), pong("4")},
    };
    for (const auto streams : {StdioAgent::Streams::Pipes, StdioAgent::Streams::Sockets}) {
        StdioAgent agent({"--services_file=", "--mcp_tool_names=safe", "--mcp_modern"}, streams);
        for (const auto& row : kRows) {
            SCOPED_TRACE(row.line.substr(0, 80));
            agent.type(row.line);
            if (!row.answer.empty()) {
                const std::string answer = agent.readLine();
                EXPECT_TRUE(holds(answer, row.answer)) << answer.substr(0, 300);
            }
        }
        agent.type(ping("5") + "\n" + ping("6")); // and the last line needs no end
        agent.endInput();
        EXPECT_EQ(agent.readLine(), pong("5"));
        EXPECT_EQ(agent.readLine(), pong("6"));
        EXPECT_EQ(agent.readLine(), "");
        EXPECT_EQ(agent.exitCode(), 0);
    }
}

TEST(AgentStdio, CallsAreAnsweredAsTheyEndAndCancelledOnesNotAtAll) {
    const SlowService slow;
    StdioAgent agent({slow.allowlist()});
    agent.initialize();
    const std::string request = R"({"jsonrpc":"2.0","id":1,"method":"ping"})";
    agent.type(bridgeCall("slow", request));
    agent.type(ping("\"meanwhile\""));
    EXPECT_EQ(agent.readLine(), pong("\"meanwhile\""));
    for (const char* id : {"2", "1"}) // the first one is nobody's
        agent.type(R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":)" + std::string(id) +
                   "}}");
    agent.endInput();
    EXPECT_EQ(agent.readLine(), "") << "ended, without an answer to the call";
    EXPECT_EQ(agent.exitCode(), 0);
}

TEST(AgentStdio, ASignalEndsItAndCallsGetAnAnswer) {
    const SlowService slow;
    StdioAgent agent({slow.allowlist()});
    agent.initialize();
    agent.type(bridgeCall("slow", kPing));
    agent.type(ping("2"));
    EXPECT_EQ(agent.readLine(), pong("2"));
    EXPECT_EQ(agent.exitCode(SIGTERM), 0);
    EXPECT_TRUE(holds(agent.readLine(), "the agent was stopped"));
}

TEST(AgentStdio, WithoutAReaderTheCallsEnd) {
    const SlowService slow;
    StdioAgent agent({slow.allowlist()});
    agent.initialize();
    agent.type(bridgeCall("slow", kPing));
    agent.leave();
    agent.type(ping("2"));
    EXPECT_EQ(agent.exitCode(), 0);
}

// The client sends 200,000 messages, 11 MB, and reads no answer: the agent reads no more, and loses nothing.
TEST(AgentStdio, ASlowReaderStopsTheReading) {
    constexpr int kMessages = 200000;
    StdioAgent agent;
    agent.initialize();
    const long before = agent.residentKib();
    std::thread writer([&] {
        for (int first = 0; first < kMessages; first += 1000) {
            std::string batch;
            for (int i = first; i < first + 1000; ++i)
                batch += ping(std::to_string(i)) + (i + 1 < first + 1000 ? "\n" : "");
            agent.type(batch);
        }
        agent.endInput();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300)); // more would not make the agent read more
    if (IS_SANITIZED == 0) {                                     // a sanitizer keeps what was freed
        EXPECT_LT(agent.residentKib() - before, 8192);
    }
    for (int i = 0; i < kMessages; ++i)
        ASSERT_EQ(agent.readLine(), pong(std::to_string(i)));
    writer.join();
    EXPECT_EQ(agent.exitCode(), 0);
}

} // namespace
