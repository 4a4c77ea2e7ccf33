// The programs as a user runs them: lines, exit codes, signals.

#include "agent/TestProgram.h"
#include "core/io/ScriptedPeer.h"

namespace {

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
        TestProgram agent(BRELT_AGENT_PROGRAM, row.arguments);
        std::string line = agent.readLine();
        while (line.find("[ERROR]") != std::string::npos)
            line = agent.readLine();
        EXPECT_EQ(line, row.lastLine);
        EXPECT_EQ(agent.exitCode(), row.exitCode);
    }
}

TEST(AgentProgram, ASignalEndsBothProgramsInOrder) {
    const std::string port = freePort();
    TestProgram agent(BRELT_AGENT_PROGRAM, {"--port=" + port, "--services_file="});
    EXPECT_EQ(agent.readLine(), "[McpBridge] listening on 127.0.0.1:" + port + " path /mcp");
    agent.terminate();
    EXPECT_EQ(agent.exitCode(), 0);
    TestProgram service(ECHO_SERVICE_PROGRAM, {"--port=" + port});
    EXPECT_EQ(service.readLine(), "echo-service: listening on http://127.0.0.1:" + port + "/mcp");
    service.terminate();
    EXPECT_EQ(service.exitCode(), 0);
}

} // namespace
