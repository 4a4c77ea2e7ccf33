// A small MCP service over streamable HTTP with JSON answers. Options: --bind, --port; --tls_cert_path and
// --tls_key_path for https.

#include "core/io/http/ZnHttpApp.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnWait.h"
#include "core/types/ZnCrypto.h"
#include "core/types/ZnJsonArray.h"
#include "core/types/ZnJsonDocument.h"

#include <algorithm>
#include <iostream>
#include <utility>

namespace {

constexpr const char* kProtocolVersion = "2025-06-18";
constexpr int kLongestDelayMs = 600000;
constexpr int kEndMs = 1000;

ZnJsonObject response(const ZnJsonValue& id, const char* member, ZnJsonValue value) {
    ZnJsonObject object{{"jsonrpc", "2.0"}, {"id", id}};
    object[member] = std::move(value);
    return object;
}

ZnJsonObject error(const ZnJsonValue& id, int code, const char* message) {
    return response(id, "error", ZnJsonObject{{"code", code}, {"message", message}});
}

ZnJsonObject toolResult(const ZnString& text, bool isError = false) {
    ZnJsonArray content;
    content.append(ZnJsonObject{{"type", "text"}, {"text", text}});
    return {{"content", std::move(content)}, {"isError", isError}};
}

// --- the tools

ZnJsonObject echo(const ZnJsonObject& arguments) {
    const ZnJsonValue& text = arguments.value("text");
    return toolResult(text.isString() ? ZnString(text.string()) : text.toJson());
}

ZnJsonObject add(const ZnJsonObject& arguments) {
    const ZnJsonValue sum = arguments.value("a").toDouble(0.0) + arguments.value("b").toDouble(0.0);
    return toolResult(sum.toJson());
}

/// Waits without stopping the thread: the handler's fiber is parked, and the service goes on answering others.
ZnJsonObject slow(const ZnJsonObject& arguments) {
    const int delayMs = std::clamp(arguments.value("delayMs").toInt(0), 0, kLongestDelayMs);
    sleepFor(delayMs);
    return toolResult("waited " + ZnString::number(delayMs) + " ms");
}

struct Tool {
    const char* name;
    const char* description;
    const char* argumentTypes; // JSON text of "properties"
    ZnJsonObject (*call)(const ZnJsonObject& arguments);
};
constexpr Tool kTools[] = {
    {"echo", "Returns its text.", R"({"text": {"type": "string"}})", echo},
    {"add", "Adds two numbers.", R"({"a": {"type": "number"}, "b": {"type": "number"}})", add},
    {"slow", "Answers after a delay.", R"({"delayMs": {"type": "integer"}})", slow},
};

ZnJsonObject listTools() {
    ZnJsonArray tools;
    for (const Tool& tool : kTools) {
        ZnString parseError;
        ZnJsonValue properties = std::move(ZnJsonDocument::fromJson(tool.argumentTypes, &parseError).root());
        ZnJsonObject schema{{"type", "object"}};
        schema["properties"] = std::move(properties);
        tools.append(
            ZnJsonObject{{"name", tool.name}, {"description", tool.description}, {"inputSchema", std::move(schema)}});
    }
    return {{"tools", std::move(tools)}};
}

ZnJsonObject callTool(const ZnJsonObject& params) {
    const std::string_view name = params.value("name").string();
    for (const Tool& tool : kTools)
        if (name == tool.name)
            return tool.call(params.value("arguments").toObject());
    return toolResult("Unknown tool: " + ZnString(name), true);
}

// --- the protocol

/// An agent without interoperability sends the version as a number.
bool isJsonRpc20(const ZnJsonObject& message) {
    const ZnJsonValue& version = message.value("jsonrpc");
    return version.string() == "2.0" || version.toDouble(0.0) == 2.0;
}

ZnJsonObject initializeResult() {
    return {{"protocolVersion", kProtocolVersion},
            {"capabilities", ZnJsonObject{{"tools", ZnJsonObject{{"listChanged", false}}}}},
            {"serverInfo", ZnJsonObject{{"name", "echo-service"}, {"version", "1.0.0"}}}};
}

ZnString newSessionId() {
    ZnCrypto::Bytes bytes;
    ZnCrypto::randomBytes(16, &bytes);
    ZnString id;
    for (const unsigned char byte : bytes)
        id += ZnString::number(256ULL + byte, 16).mid(1); // two digits each
    return id;
}

ZnJsonObject answer(ZnHttpContext& context, const ZnJsonObject& request) {
    const ZnJsonValue& id = request.value("id");
    const std::string_view method = request.value("method").string();
    if (method == "initialize") {
        context.setHeader("mcp-session-id", newSessionId());
        return response(id, "result", initializeResult());
    }
    if (method == "ping")
        return response(id, "result", ZnJsonObject());
    if (method == "tools/list")
        return response(id, "result", listTools());
    if (method == "tools/call")
        return response(id, "result", callTool(request.value("params").toObject()));
    return error(id, -32601, "Method not found");
}

void handlePost(ZnHttpContext& context) {
    ZnJsonDocument document;
    ZnString parseError;
    if (!context.parseJsonBody(&document, &parseError, JsonReading::Exact))
        return context.json(error(ZnJsonValue(), -32700, "Parse error"), 400);
    const ZnJsonObject* message = std::as_const(document).root().object();
    if (message == nullptr || !isJsonRpc20(*message))
        return context.json(error(ZnJsonValue(), -32600, "Invalid Request"), 400);
    if (!message->contains("id"))
        return context.sendStatus(202); // a notification, such as "notifications/initialized"
    context.json(answer(context, *message));
}

} // namespace

int main(int argc, char** argv) {
    ZnCoreApplication application(argc, argv);
    const ZnString address = application.getArgument("bind", "127.0.0.1");
    const int port = application.getArgument("port", "9020").toInt();
    ZnHttpApp app;
    app.post("/mcp", handlePost);
    const ZnList<ZnSslLocalCredential> credentials = ZnSslServer::makeLocalCredentials_(
        application.getArgument("tls_cert_path", ""), application.getArgument("tls_key_path", ""));
    const bool usesTls = !credentials.isEmpty();
    ZnTcpServer& listener = usesTls ? app.sslServer() : app.tcpServer();
    if ((usesTls && !app.sslServer().reloadLocalCredentials(credentials)) || port < 1 || port > 65535 ||
        !listener.listen(address, static_cast<unsigned short>(port))) {
        std::cerr << "echo-service: unable to listen on " << address << ":" << port << std::endl;
        return 2;
    }
    std::cout << "echo-service: listening on " << (usesTls ? "https://" : "http://") << address << ":" << port << "/mcp"
              << std::endl;
    const int exitCode = application.exec(); // SIGINT and SIGTERM end it
    application.endWaits(kEndMs);            // what waits in "slow" is answered
    return exitCode;
}
