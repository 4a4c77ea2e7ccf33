#pragma once

#include "agent/BreltMcpBridgeAgent.h"
#include "agent/McpMessages.h"
#include "core/io/ScriptedPeer.h"
#include "support/LogCapture.h"
#include "support/LoopFixture.h"

#include <utility>
#include <vector>

struct BreltMcpBridgeAgentTestPeer {
    static void registerRoutes(BreltMcpBridgeAgent& agent, ZnHttpApp& app) { agent.registerRoutes_(app); }
    static bool parseServices(BreltMcpBridgeAgent& agent, const ZnString& text, ZnString* error) {
        return agent.services_->read(text, agent.servicesFile_, agent.isInterop_, error);
    }
    static McpDispatcher& dispatcher(BreltMcpBridgeAgent& agent) { return *agent.dispatcher_; }
    static ZnHttpTimeouts timeouts(BreltMcpBridgeAgent& agent) { return agent.timeouts_(ZnHttpTimeouts()); }
    static void setClock(BreltMcpBridgeAgent& agent, std::function<long long()> clock) {
        agent.gate_.settings().clock = clock;
        agent.dispatcher_->setClock(std::move(clock));
    }
};

/// Keeps what was told last.
struct LastRecords : McpObserver {
    void onRequest(const McpRequestRecord& record) override { request = record; }
    void onCall(const McpCallRecord& record) override { call = record; }

    McpRequestRecord request;
    McpCallRecord call;
};

/// An agent whose routes are called with values, without a socket, and a clock that stands still.
class AgentFixture : public LoopFixture {
protected:
    using Headers = std::vector<std::pair<const char*, std::string>>;
    using Peer = BreltMcpBridgeAgentTestPeer;

    void SetUp() override {
        Peer::setClock(agent_, [this] { return nowNs_; });
        agent_.setMcpPath(" mcp// "); // means "/mcp"
        Peer::registerRoutes(agent_, routes_);
    }

    ZnHttpResponse call(const char* method, const std::string& path, const Headers& headers = {},
                        const std::string& body = {}) {
        ZnHttpRequest request;
        request.method = method;
        request.path = path;
        request.peerAddress = peerAddress_;
        for (const auto& [name, value] : headers) {
            if (request.headers.contains(name))
                request.repeatedHeaders.append(name);
            request.headers.insert(name, value);
        }
        request.body = ZnByteArray(std::string_view(body));
        ZnHttpResponse response;
        EXPECT_TRUE(routes_.router().dispatch(request, &response));
        return response;
    }
    static std::string bodyOf(const ZnHttpResponse& response) { return response.body.toZnString().str(); }
    static std::string header(const ZnHttpResponse& response, const char* name) {
        return response.headers.value(name, "absent").str();
    }
    ZnHttpResponse post(const std::string& body, const std::string& session = {}) {
        return call("POST", "/mcp", session.empty() ? Headers() : Headers{{"mcp-session-id", session}}, body);
    }
    std::string newSession() { return header(post(kInitialize), "mcp-session-id"); }
    void setServices(const std::string& text) {
        ZnString error;
        EXPECT_TRUE(Peer::parseServices(agent_, ZnString(text), &error)) << error;
    }
    /// The result of one tool, without what stands around it; "error: " in front when it is one.
    std::string callTool(const std::string& name, const std::string& arguments, const std::string& session) {
        const std::string body = bodyOf(post(toolCall(name, arguments), session));
        const std::string mark = "\"structuredContent\": ";
        const std::size_t at = body.find(mark);
        if (at == std::string::npos)
            return body;
        const bool isError = holds(body, "\"isError\": true,\"structuredContent\"");
        return (isError ? "error: " : "") + body.substr(at + mark.size(), body.size() - at - mark.size() - 2);
    }

    BreltMcpBridgeAgent agent_;
    ZnHttpApp routes_;
    const std::shared_ptr<LastRecords> last_ = std::make_shared<LastRecords>(); // for setObserver
    ZnString peerAddress_ = "10.0.0.1";
    long long nowNs_ = 1000000000;
};
