// The state directory as a user meets it: restarts, directories that cannot be used, and the command that reads.

#include "agent/McpMessages.h"
#include "core/fs/TemporaryDirectory.h"
#include "support/TestProgram.h"

#include <algorithm>
#include <memory>
#include <sstream>

namespace {

/// An agent with a state directory, in front of the sample service, that curl talks to.
class TrailTest : public testing::Test {
protected:
    void SetUp() override { service_.readLine(); }

    std::unique_ptr<TestProgram> start(const std::string& state, std::string* warnings = nullptr) {
        const ZnString services = directory_.file(
            "services.json", R"({"services":[{"id":"echo","endpoint":"http://127.0.0.1:)" + servicePort_ +
                                 R"(/mcp"},{"id":"dead","endpoint":"http://127.0.0.1:1/"}]})");
        auto agent = std::make_unique<TestProgram>(
            BRELT_AGENT_PROGRAM, std::vector<std::string>{"--mcp_interop", "--port=" + port_, "--state_dir=" + state,
                                                          "--services_file=" + services.str()});
        std::string line = agent->readLine();
        for (; !line.empty() && !holds(line, "listening on"); line = agent->readLine())
            if (warnings != nullptr && holds(line, "state directory"))
                *warnings += line + "\n";
        return agent;
    }
    std::string curl(const std::string& message) {
        TestProgram program("curl", {"-s", "-i", "-d", message, "-H", "mcp-session-id: " + session_,
                                     "http://127.0.0.1:" + port_ + "/mcp"});
        std::string answer = program.restOfOutput();
        program.exitCode();
        return answer;
    }
    void call(const std::string& service, const std::string& tool) {
        const std::string request = rpcMessage("tools/call", R"({"name":")" + tool + R"(","arguments":{"a":1,"b":2}})");
        EXPECT_TRUE(holds(curl(bridgeCall(service, request)), "200 OK"));
    }
    static std::string run(std::vector<std::string> arguments, int* exitCode) {
        arguments.insert(arguments.begin(), "trail");
        TestProgram program(BRELT_AGENT_PROGRAM, arguments);
        std::string output = program.restOfOutput();
        *exitCode = program.exitCode();
        return output;
    }
    /// Without the times, and only so many of their columns.
    static std::vector<std::string> linesOf(const std::string& output) {
        std::vector<std::string> lines;
        std::istringstream in(output);
        for (std::string line, time, service, method, tool, outcome; std::getline(in, line);) {
            std::istringstream(line) >> time >> service >> method >> tool >> outcome;
            lines.push_back(service + " " + method + " " + tool + " " + outcome);
        }
        return lines;
    }

    const TemporaryDirectory directory_;
    const std::string state_ = directory_.path("state").str();
    const std::string servicePort_ = freePort();
    std::string port_ = freePort();
    TestProgram service_{ECHO_SERVICE_PROGRAM, {"--port=" + servicePort_}};
    std::string session_;
};

TEST_F(TrailTest, CallsAreListedBesideTheAgentAsAskedFor) {
    const auto agent = start(state_);
    session_ = sessionOf(curl(kInitialize));
    call("echo", "add");
    call("dead", "add");
    call("echo", R"(e\u001b[2J\u009b)");
    const std::string add = "echo tools/call add ok";
    const std::string dead = "dead tools/call add transport_error";
    const std::string odd = R"(echo tools/call e\x1B[2J\xC2\x9B tool_error)";
    struct Row {
        std::vector<std::string> options;
        std::vector<std::string> lines;
    };
    int exitCode = -1;
    while (linesOf(run({state_}, &exitCode)).size() < 3) // it writes when it has answered
        EXPECT_EQ(exitCode, 0);
    for (const Row& row : {Row{{}, {add, dead, odd}},
                           {{"--service=echo"}, {add, odd}},
                           {{"--outcome", "ok"}, {add}},
                           {{"--service", "echo", "--outcome=tool_error", "--since=1h"}, {odd}},
                           {{"--service=none"}, {}},
                           {{"--since=2999-01-01"}, {}},
                           {{"--service=dead", "--since=2999-01-01T00:00:00Z"}, {}}}) {
        std::vector<std::string> arguments = row.options;
        arguments.push_back(state_);
        EXPECT_EQ(linesOf(run(arguments, &exitCode)), row.lines);
        EXPECT_EQ(exitCode, 0);
    }
    const std::string json = run({state_, "--json", "--service=echo"}, &exitCode);
    EXPECT_TRUE(holds(json, R"("service": "echo","method": "tools/call","tool": "e\u001B[2J\u009B","outcome")"))
        << json;
    EXPECT_EQ(agent->exitCode(SIGTERM), 0);
    EXPECT_EQ(linesOf(run({state_}, &exitCode)).size(), 3U) << "also after its end";
    for (const std::vector<std::string>& wrong : std::vector<std::vector<std::string>>{
             {}, {state_, "--since"}, {state_, "--since=soon"}, {state_, "--outcome=fine"}, {state_, "x"}, {"--all"}}) {
        run(wrong, &exitCode);
        EXPECT_EQ(exitCode, 2);
    }
    for (const ZnString& unreadable : {directory_.path("none"), directory_.path("services.json")}) {
        run({unreadable.str()}, &exitCode);
        EXPECT_EQ(exitCode, 1);
    }
}

TEST_F(TrailTest, SessionsAndFollowersGoOnWhenTheAgentIsKilledAndStartedAnew) {
    auto agent = start(state_);
    session_ = sessionOf(curl(kInitialize));
    call("echo", "before");
    TestProgram follower(BRELT_AGENT_PROGRAM, {"trail", state_, "--follow", "--service=echo"});
    const auto follow = [&follower](const std::string& tool) {
        EXPECT_EQ(linesOf(follower.readLine() + "\n"),
                  std::vector<std::string>{"echo tools/call " + tool + " tool_error"});
    };
    follow("before");
    for (const int signal : {SIGKILL, SIGTERM}) {
        call("dead", "not asked for");
        call("echo", "while");
        follow("while");
        EXPECT_EQ(agent->exitCode(signal), signal == SIGKILL ? -SIGKILL : 0);
        agent = start(state_);
        EXPECT_TRUE(holds(curl(kPing), "200 OK")) << "the session goes on";
        call("echo", "after");
        follow("after");
    }
    EXPECT_EQ(follower.exitCode(SIGTERM), 0);
    TestProgram head("sh",
                     {"-c", std::string("\"$0\" trail \"$1\" --follow | head -n 1"), BRELT_AGENT_PROGRAM, state_});
    EXPECT_TRUE(holds(head.readLine(), "before"));
    EXPECT_EQ(head.exitCode(), 0) << "a follower that nobody reads ends by itself";
}

TEST_F(TrailTest, AnUnusableDirectoryIsOneWarningAndTheAgentServes) {
    const auto owner = start(directory_.path("taken").str());
    for (const std::string& name :
         {std::string("taken"), std::string("file"), std::string("file/below"), std::string("damaged")}) {
        SCOPED_TRACE(name);
        directory_.file("file", "");
        directory_.file("damaged/CURRENT", "nonsense\n");
        port_ = freePort();
        std::string warnings;
        const auto agent = start(directory_.path(name).str(), &warnings);
        EXPECT_EQ(warnings.rfind("[McpBridge] Warning: state directory: ", 0), 0U);
        EXPECT_EQ(std::count(warnings.begin(), warnings.end(), '\n'), 1) << warnings;
        EXPECT_TRUE(holds(warnings, directory_.path(name).str())) << warnings;
        EXPECT_TRUE(holds(curl(kInitialize), "200 OK"));
    }
}

} // namespace
