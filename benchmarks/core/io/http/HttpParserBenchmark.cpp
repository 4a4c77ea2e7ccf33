#include "core/io/http/ZnHttpApp.h"
#include "core/io/http/ZnHttpParser_.h"
#include "core/io/http/ZnHttpSession.h"
#include "core/runtime/ZnCoreApplication.h"

#include <benchmark/benchmark.h>

namespace {

const std::string kBody = R"({"jsonrpc":"2.0","id":1,"method":"tools/call",)"
                          R"("params":{"name":"bridge.list_services","arguments":{}}})";
const std::string kSmallPost = "POST /mcp HTTP/1.1\r\nHost: 127.0.0.1:9010\r\nContent-Type: application/json\r\n"
                               "Accept: application/json, text/event-stream\r\nMcp-Protocol-Version: 2025-06-18\r\n"
                               "Mcp-Session-Id: 0123456789abcdef0123456789abcdef\r\nContent-Length: " +
                               std::to_string(kBody.size()) + "\r\n\r\n" + kBody;

void parsePieces(benchmark::State& state, const std::string& input, std::size_t pieceBytes) {
    ZnHttpParser_ parser;
    ZnList<ZnHttpParser_::RequestRef> requests;
    for (auto _ : state) {
        for (std::size_t at = 0; at < input.size(); at += pieceBytes)
            parser.feed(std::string_view(input).substr(at, pieceBytes), requests);
        benchmark::DoNotOptimize(requests.size());
        requests.clear();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(input.size()));
}

void smallPost(benchmark::State& state) {
    parsePieces(state, kSmallPost, kSmallPost.size());
}
BENCHMARK(smallPost);

// Its cost a byte must not depend on how long the lines are.
void byteByByte(benchmark::State& state) {
    const std::string line(static_cast<std::size_t>(state.range(0)), 'x');
    parsePieces(state, "GET / HTTP/1.1\r\nx:" + line + "\r\n\r\n", 1);
}
BENCHMARK(byteByByte)->Arg(100)->Arg(1000)->Arg(10000)->Arg(30000);

void largeBody(benchmark::State& state) {
    const std::string body(4 * 1024 * 1024, 'x');
    const std::string head = "POST / HTTP/1.1\r\ncontent-length: " + std::to_string(body.size()) + "\r\n\r\n";
    parsePieces(state, head + body, 16 * 1024);
}
BENCHMARK(largeBody);

/// A connection whose peer is the benchmark and costs nothing.
class LoopbackSocket : public ZnAbstractSocket {
public:
    LoopbackSocket() { state_ = SocketState::Connected; }
    void close() override { state_ = SocketState::Unconnected; }
    ZnString read(long long) override { return {}; }
    std::size_t readInto(char* buffer, std::size_t capacity) override {
        const std::size_t byteCount = input.copy(buffer, capacity);
        input.remove_prefix(byteCount);
        return byteCount;
    }
    using ZnAbstractSocket::write;
    bool write(ZnString bytes) override {
        benchmark::DoNotOptimize(bytes.data());
        writeFinished();
        return true;
    }
    bool connectToHost(const ZnString&, unsigned short) override { return false; }
    bool waitForConnected(int) override { return false; }
    bool waitForBytesWritten(int) override { return false; }

    std::string_view input;
};

// Everything between the socket's two system calls: session, parser, router, context, JSON answer, response head.
void sessionRoundTrip(benchmark::State& state) {
    ZnCoreApplication application;
    ZnHttpRouter router;
    router.addRoute("GET", "/help", [](const ZnHttpRequest&) { return ZnHttpResponse(); });
    router.addRoute("POST", "/mcp", [](const ZnHttpRequest& request) {
        ZnHttpContext context(request);
        context.setHeader("cache-control", "no-store");
        context.json(ZnJsonObject{{"jsonrpc", "2.0"}, {"id", 1}});
        return std::move(context.response());
    });
    auto* socket = new LoopbackSocket;
    ZnHttpSession session(socket, &router, ZnHttpLimits(), ZnHttpTimeouts(), false, 9010);
    for (auto _ : state) {
        socket->input = kSmallPost;
        socket->readyRead();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(sessionRoundTrip);

} // namespace
