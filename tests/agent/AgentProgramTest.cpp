// The programs as a user runs them: lines, exit codes, signals.

#include "core/io/ScriptedPeer.h"

#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

namespace {

/// A child process with its standard output and error as text.
class Program {
public:
    Program(const char* path, const std::vector<std::string>& arguments) {
        int pipes[2];
        EXPECT_EQ(::pipe2(pipes, O_CLOEXEC), 0);
        output_ = pipes[0];
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, pipes[1], STDOUT_FILENO);
        ::posix_spawn_file_actions_adddup2(&actions, pipes[1], STDERR_FILENO);
        std::vector<char*> argv{const_cast<char*>(path)};
        for (const std::string& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        EXPECT_EQ(::posix_spawn(&pid_, path, &actions, nullptr, argv.data(), environ), 0);
        ::posix_spawn_file_actions_destroy(&actions);
        ::close(pipes[1]);
    }
    ~Program() { ::close(output_); }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    std::string readLine() {
        std::string line;
        char c = 0;
        while (::read(output_, &c, 1) == 1 && c != '\n')
            line += c;
        return line;
    }
    void terminate() { ::kill(pid_, SIGTERM); }
    int exitCode() {
        int status = 0;
        ::waitpid(pid_, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t pid_ = -1;
    int output_ = -1;
};

std::string freePort() {
    return std::to_string(ScriptedPeer(ScriptedPeer::silent()).port());
}

TEST(AgentProgram, LinesAndExitCodes) {
    const ScriptedPeer taken(ScriptedPeer::silent());
    const std::string port = freePort();
    struct Row {
        const char* name;
        std::vector<std::string> arguments;
        std::string lastLine;
        int exitCode;
    };
    const Row rows[] = {
        {"raw values are shown", {"--port=" + port, "--bind=", "--mcp_path", "mcp/", "--services_file=", "--duration_ms=1"},
         "[McpBridge] listening on :" + port + " path mcp/", 0},
        {"one TLS path alone means none", {"--tls_cert_path=a.pem", "--port", port, "--services_file=", "--duration_ms=1"},
         "[McpBridge] listening on 127.0.0.1:" + port + " path /mcp", 0},
        {"no services file", {"--port=" + port, "--services_file=none.json"},
         "[McpBridge] Cannot load services file none.json: Unable to open file", 2},
        {"port out of range", {"--port=70000", "--bind=999.0.0.1", "--services_file="},
         "[McpBridge] Unable to start on 999.0.0.1:9010", 2},
        {"port in use", {"--port=" + std::to_string(taken.port()), "--services_file="},
         "[McpBridge] Unable to start on 127.0.0.1:" + std::to_string(taken.port()), 2},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Program agent(BRELT_AGENT_PROGRAM, row.arguments);
        std::string line = agent.readLine();
        while (line.find("[ERROR]") != std::string::npos)
            line = agent.readLine();
        EXPECT_EQ(line, row.lastLine);
        EXPECT_EQ(agent.exitCode(), row.exitCode);
    }
}

TEST(AgentProgram, ASignalEndsBothProgramsInOrder) {
    const std::string port = freePort();
    Program agent(BRELT_AGENT_PROGRAM, {"--port=" + port, "--services_file="});
    EXPECT_EQ(agent.readLine(), "[McpBridge] listening on 127.0.0.1:" + port + " path /mcp");
    agent.terminate();
    EXPECT_EQ(agent.exitCode(), 0);
    Program service(ECHO_SERVICE_PROGRAM, {"--port=" + port});
    EXPECT_EQ(service.readLine(), "echo-service: listening on http://127.0.0.1:" + port + "/mcp");
    service.terminate();
    EXPECT_EQ(service.exitCode(), 0);
}

} // namespace
