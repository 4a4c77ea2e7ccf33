// The programs as a user runs them: lines, exit codes, signals.

#include "agent/TestProgram.h"
#include "core/io/ScriptedPeer.h"
#include "core/io/TlsPeers.h"

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
        {"help", {"--port=1", "--help", "bind"}, "Usage: brelt-mcp-bridge-agent [--option=value]...", 0},
        {"version", {"--version=1"}, "brelt-mcp-bridge-agent 0.1.0", 0},
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

TEST(AgentProgram, SpeaksTlsWithCurlAndWithServices) {
    const TlsFiles& files = TlsFiles::instance();
    const auto tls = [&](const char* name, const std::string& port) {
        return std::vector<std::string>{"--port=" + port, "--tls_cert_path=" + files.path(std::string(name) + ".pem").str(),
                                        "--tls_key_path=" + files.path(std::string(name) + ".key").str()};
    };
    const std::string servicePort = freePort();
    TestProgram service(ECHO_SERVICE_PROGRAM, tls("good", servicePort));
    EXPECT_EQ(service.readLine(), "echo-service: listening on https://127.0.0.1:" + servicePort + "/mcp");
    const std::string endpoint = R"("endpoint":"https://localhost:)" + servicePort + R"(/mcp")";
    const TemporaryDirectory directory;
    const ZnString services = directory.file(
        "services.json", R"({"services":[{"id":"own",)" + endpoint + R"(,"tlsCaFile":")" + files.path("ca.pem").str() +
                             R"("},{"id":"wrong",)" + endpoint + R"(,"tlsCaFile":")" + files.path("otherca.pem").str() +
                             R"("},{"id":"found",)" + endpoint + "}]}");
    const std::string port = freePort();
    std::vector<std::string> options = tls("second", port);
    options.push_back("--services_file=" + services.str());
    ::setenv("ZN_SSL_CA_FILE", files.path("ca.pem").data(), 1);
    TestProgram agent(BRELT_AGENT_PROGRAM, options);
    ::unsetenv("ZN_SSL_CA_FILE");
    EXPECT_EQ(agent.readLine(), "[McpBridge] listening on 127.0.0.1:" + port + " path /mcp");

    const auto curl = [&](const std::string& version, const std::string& session, const std::string& message) {
        TestProgram program("curl", {"-s", "-i", "--tls-max", version, "--cacert", files.path("ca.pem").str(), "-H",
                                     "mcp-session-id: " + session, "-d", message, "https://localhost:" + port + "/mcp"});
        const std::string answer = program.restOfOutput();
        EXPECT_EQ(program.exitCode(), 0);
        return answer;
    };
    const std::string begun = curl(
        "1.3", "",
        R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18"}})");
    const std::string mark = "mcp-session-id: ";
    ASSERT_NE(begun.find(mark), std::string::npos) << begun;
    const std::size_t idAt = begun.find(mark) + mark.size();
    const std::string session = begun.substr(idAt, begun.find('\r', idAt) - idAt);
    const auto rpc = [&](const std::string& version, const std::string& id) {
        return curl(version, session,
                    R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"bridge.rpc","arguments":{"serviceId":")" +
                        id + R"(","request":{"jsonrpc":"2.0","id":1,"method":"ping"}}}})");
    };
    EXPECT_NE(rpc("1.3", "own").find(R"("transportOk": true)"), std::string::npos);
    EXPECT_NE(rpc("1.2", "found").find(R"("transportOk": true)"), std::string::npos);
    EXPECT_NE(rpc("1.3", "wrong").find(R"("errorCode": -2146893048)"), std::string::npos);
    agent.terminate();
    EXPECT_NE(agent.restOfOutput().find("verify=20 (unable to get local issuer certificate)"), std::string::npos);
    EXPECT_EQ(agent.exitCode(), 0);
    service.terminate();
    EXPECT_EQ(service.exitCode(), 0);
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
