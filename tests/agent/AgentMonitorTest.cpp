// What operators see of the agent: the access log of the program.

#include "agent/McpMessages.h"
#include "core/fs/TemporaryDirectory.h"
#include "core/io/ScriptedPeer.h"
#include "support/OnThreads.h"
#include "support/TestProgram.h"

#include <regex>

namespace {

/// Sends one request by a program of its own; head and body of the answer.
std::string curl(const std::string& port, std::vector<std::string> arguments, const std::string& path = "/mcp") {
    arguments.insert(arguments.end(), {"-s", "-i", "http://127.0.0.1:" + port + path});
    TestProgram program("curl", arguments);
    return program.restOfOutput();
}

/// With what is different each time replaced.
std::string stableText(std::string text) {
    text = std::regex_replace(
        text, std::regex("\"time\":\"2[0-9]{3}-[01]\\d-[0-3]\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z\""), "TIME");
    text = std::regex_replace(text, std::regex("\"session\":\"[0-9a-f]{8}\""), "SESSION");
    text = std::regex_replace(text, std::regex("\"ms\":\\d+\\.\\d{3}"), "MS");
    text = std::regex_replace(text, std::regex("\\[[^\n]*WARNING[^\n]*\n"), ""); // of the agent's log
    return std::regex_replace(text, std::regex("(bytes..t?\":)[1-9]\\d*"), "$1N");
}

TEST(AgentMonitor, AccessLogTellsOfRequestsAndCallsAndShowsNoSecret) {
    const TemporaryDirectory directory;
    const std::string servicePort = freePort();
    TestProgram service(ECHO_SERVICE_PROGRAM, {"--port=" + servicePort});
    service.readLine();
    const std::string at = R"(","endpoint":"http://127.0.0.1:)";
    const ZnString services = directory.file(
        "services.json", R"({"services":[{"id":"echo)" + at + servicePort + R"(/mcp"},{"id":"d\"\nd)" + at +
                             freePort() + R"(/"},{"id":"no)" + at + servicePort + R"(/mcp","denyTools":["*"]}]})");
    const std::string port = freePort();
    TestProgram agent(BRELT_AGENT_PROGRAM,
                      {"--port=" + port, "--services_file=" + services.str(), "--mcp_token=hush", "--mcp_interop",
                       "--mcp_allowed_hosts=local", "--mcp_throttle=failures", "--access_log=-"});
    agent.readLine();
    const std::string token = "authorization: Bearer hush";
    const std::string session =
        "mcp-session-id: " +
        sessionOf(
            curl(port, {"-H", token, "-d",
                        rpcMessage("initialize",
                                   R"({"protocolVersion":"2025-06-18","clientInfo":{"name":"a\"\u0001\u009b\nb"}})")}));
    const auto post = [&](const std::string& message) { curl(port, {"-H", token, "-H", session, "-d", message}); };
    post(bridgeCall("echo", toolCall("add", R"({"a":1,"b":"hush"})")));
    post(bridgeCall("echo", toolCall("none", "{}")));
    post(bridgeCall("d\\\"\\nd", toolCall("t", "{}")));
    post(bridgeCall("no", toolCall("t", "{}")));
    post(bridgeCall("none"));
    post(rpcMessage("none", "{}"));
    curl(port, {"-H", "host: hush.example"}, "/help");
    curl(port, {"-H", token, "-H", "origin: http://hush", "-d", "x"});
    curl(port, {"-H", "authorization: Bearer hush2", "-d", "xyz"});
    curl(port, {"-d", kPing});
    curl(port, {"-H", token});
    curl(port, {"-H", token, "-H", session, "-X", "DELETE"});
    post(kPing);
    agent.signal(SIGTERM);
    std::string lines = agent.restOfOutput();
    EXPECT_FALSE(holds(lines, "hush")) << lines;
    const std::string of = R"({TIME,"kind":"call","client":"a\"\u0001\u009B\nb",SESSION,)";
    const std::string request = R"({TIME,"kind":"request",)";
    const std::string rpc = R"({TIME,"kind":"request","client":"a\"\u0001\u009B\nb",SESSION,"method":)";
    const std::string bridge = rpc + R"("tools/call","tool":"bridge.rpc",MS,"status":200,)";
    const std::string inOut = R"("bytesIn":N,"bytesOut":N})"
                              "\n";
    const std::string inNone = R"("bytesIn":N,"bytesOut":0})"
                               "\n";
    const std::string noneOut = R"("bytesIn":0,"bytesOut":N})"
                                "\n";
    EXPECT_EQ(
        stableText(lines),
        rpc + R"("initialize",MS,"status":200,)" + inOut + of +
            R"("service":"echo","method":"tools/call","tool":"add",MS,"outcome":"ok","status":200,"transportCode":0,"isError":false,)" +
            inOut + bridge + inOut + of +
            R"("service":"echo","method":"tools/call","tool":"none",MS,"outcome":"tool_error","status":200,"transportCode":0,"isError":true,)" +
            inOut + bridge + inOut + of +
            R"("service":"d\"\nd","method":"tools/call","tool":"t",MS,"outcome":"transport_error","status":0,"transportCode":10061,)" +
            noneOut + bridge + inOut + of +
            R"("service":"no",MS,"outcome":"refused","status":0,"transportCode":0,"bytesIn":0,"bytesOut":0})"
            "\n" +
            bridge + inOut + bridge + R"("isError":true,)" + inOut + rpc +
            R"("none",MS,"status":200,"rpcCode":-32601,)" + inOut + request + R"(MS,"status":403,)" + noneOut +
            request + R"(MS,"status":403,)" + inOut + request + R"(MS,"status":401,)" + inOut + request +
            R"(MS,"status":429,)" + inOut + request + R"(MS,"status":405,)" + noneOut + request +
            R"(MS,"status":204,"bytesIn":0,"bytesOut":0})"
            "\n" +
            request + R"("method":"ping",MS,"status":404,)" + inNone);
}

} // namespace
