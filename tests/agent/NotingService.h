#pragma once

#include "agent/McpMessages.h"
#include "core/io/http/ZnHttpApp.h"
#include "core/runtime/ZnEventLoop.h"

#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

/// A service in the same loop, which notes what it gets and answers as the test says.
class NotingService {
public:
    using Answer = std::function<void(ZnHttpContext&, const std::string& body)>;

    NotingService() {
        app_.post("/", [this](ZnHttpContext& context) { take_(context); });
        app_.del("/", [this](ZnHttpContext& context) {
            seen.push_back("DELETE " + headersOf_(context));
            context.sendStatus(204);
        });
        app_.get("/", [this](ZnHttpContext& context) {
            lastEventIds.push_back(context.requestHeader("last-event-id").str());
            onGet(context);
        });
        EXPECT_TRUE(app_.tcpServer().listen("127.0.0.1", 0));
    }
    std::string url() { return "http://127.0.0.1:" + std::to_string(app_.tcpServer().localPort()) + "/"; }
    /// The answer to the next request of that method, once; others get the usual one.
    void answerNext(const std::string& method, Answer answer) { scripted_[method].push_back(std::move(answer)); }
    void answerNext(const std::string& method, int status, const std::string& text) {
        answerNext(method, [=](ZnHttpContext& context, const std::string&) {
            context.send(ZnByteArray(std::string_view(text)), "application/json", status);
        });
    }
    /// Leaves the next request unanswered until release(), without which the test must not end.
    void holdNext(const std::string& method) {
        answerNext(method, [this](ZnHttpContext& context, const std::string&) {
            for (isHolding = true; !isReleased_;)
                ZnEventLoop().exec(5);
            isHolding = isReleased_ = false;
            context.sendStatus(500);
        });
    }
    void release() { isReleased_ = isHolding; }
    bool isHolding = false;
    /// How many sessions it has given.
    int sessionCount = 0;
    bool keepsSessions = true;
    std::deque<std::string> seen; // method, session and version of every request
    std::string lastBody;
    std::function<void(ZnHttpContext&)> onGet = [](ZnHttpContext& context) { context.sendStatus(405); };
    std::vector<std::string> lastEventIds; // of GETs
    std::string lastMirrors;               // the "mcp-" headers of the last POST
    std::string lastSecrets;               // the headers of the last request that tests give to a service

private:
    static std::string headersOf_(ZnHttpContext& context) {
        return context.requestHeader("mcp-session-id").str() + " " +
               context.requestHeader("mcp-protocol-version").str();
    }
    static std::string memberOf_(const std::string& body, const std::string& mark, char end) {
        const std::size_t at = body.find(mark);
        return at == std::string::npos
                   ? ""
                   : body.substr(at + mark.size(), body.find(end, at + mark.size()) - at - mark.size());
    }
    void take_(ZnHttpContext& context) {
        const std::string body = context.request().body.toZnString().str();
        const std::string method = memberOf_(body, "\"method\": \"", '"');
        seen.push_back(method + " " + headersOf_(context));
        lastBody = body;
        lastMirrors.clear();
        for (const auto& [name, value] : context.request().headers) {
            if (name == "authorization" || name.view().starts_with("x-"))
                lastSecrets += name.str() + ": " + value.str() + "\n";
            if (name.view().starts_with("mcp-"))
                lastMirrors += name.str().substr(4) + ": " + value.str() + "\n";
        }
        std::deque<Answer>& scripted = scripted_[method];
        if (!scripted.empty()) {
            const Answer answer = std::move(scripted.front());
            scripted.pop_front();
            return answer(context, body);
        }
        const std::string id = memberOf_(body, "\"id\": ", ',');
        std::string result = R"({"content":[{"type":"text","text":"1.50"}],"n":1.50})";
        if (method.starts_with("notifications/"))
            return context.sendStatus(202);
        if (method == "initialize") {
            result = R"({"protocolVersion":"2025-06-18","capabilities":{},"serverInfo":{"name":"s","version":"1"}})";
            if (keepsSessions)
                context.setHeader("mcp-session-id", "u" + ZnString::number(++sessionCount));
        }
        context.send(ZnByteArray(R"({"jsonrpc":"2.0","id":)" + id + R"(,"result":)" + result + "}"), "application/json",
                     200);
    }

    ZnHttpApp app_;
    std::map<std::string, std::deque<Answer>> scripted_;
    bool isReleased_ = false;
};
