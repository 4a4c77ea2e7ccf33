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
constexpr int kProgressSteps = 4;

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

int delayMs(const ZnJsonObject& arguments) {
    return std::clamp(arguments.value("delayMs").toInt(0), 0, kLongestDelayMs);
}

ZnJsonObject waited(const ZnJsonObject& arguments) {
    return toolResult("waited " + ZnString::number(delayMs(arguments)) + " ms");
}

/// Waits without stopping the thread: the handler's fiber is parked, and the service goes on answering others.
ZnJsonObject slow(const ZnJsonObject& arguments) {
    sleepFor(delayMs(arguments));
    return waited(arguments);
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

// --- progress

void writeEvent(const ZnPointer<ZnAbstractSocket>& socket, const ZnJsonObject& message) {
    const ZnString event = "data: " + ZnJsonValue(message).toJson() + "\n\n";
    if (socket)
        socket->write(ZnString::number(static_cast<unsigned long long>(event.size()), 16) + "\r\n" + event + "\r\n");
}

ZnJsonObject progress(const ZnJsonValue& token, int step) {
    return {{"jsonrpc", "2.0"},
            {"method", "notifications/progress"},
            {"params", ZnJsonObject{{"progressToken", token}, {"progress", step}, {"total", kProgressSteps}}}};
}

/// "slow" as a stream of events, for who asks for progress: the connection leaves HTTP behind the head.
void answerInEvents(ZnHttpContext& context, const ZnJsonObject& request, const ZnJsonValue& token) {
    context.send(ZnByteArray(), "text/event-stream", 200);
    ZnHttpResponse& opened = context.response();
    opened.chunked = true;
    const ZnString head = opened.head(true);
    opened.switchProtocols = opened.switchWithoutHead = true;
    const ZnJsonObject arguments = request.value("params").toObject().value("arguments").toObject();
    opened.onSwitch = [head, arguments, token, id = request.value("id")](ZnAbstractSocket* taken) {
        const ZnPointer<ZnAbstractSocket> socket(taken);
        taken->write(head);
        for (int step = 1; step <= kProgressSteps && socket && socket->isOpen(); ++step) {
            writeEvent(socket, progress(token, step));
            sleepFor(delayMs(arguments) / kProgressSteps);
        }
        writeEvent(socket, response(id, "result", waited(arguments)));
        if (!socket)
            return;
        socket->write(ZnString("0\r\n\r\n"));
        socket->deleteLater();
    };
}

bool wantsEvents(const ZnHttpContext& context, const ZnJsonObject& params) {
    return params.value("name").string() == "slow" &&
           context.requestHeader("accept").view().find("text/event-stream") != std::string_view::npos;
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
    const ZnJsonObject params = message->value("params").toObject();
    const ZnJsonValue token = params.value("_meta").toObject().value("progressToken");
    if (!token.isNull() && wantsEvents(context, params))
        return answerInEvents(context, *message, token);
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
