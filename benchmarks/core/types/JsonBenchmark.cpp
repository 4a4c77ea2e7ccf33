#include "core/types/ZnJsonDocument.h"

#include <benchmark/benchmark.h>

#include <string>

#if __has_include(<rapidjson/document.h>)
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#define ZN_HAS_RAPIDJSON
#endif

namespace {

const std::string& messageText() {
    static const std::string text = R"({"jsonrpc":"2.0","id":17,"method":"tools/call","params":{"name":"bridge.rpc",)"
                                    R"("arguments":{"service_id":"billing-eu","request":{"jsonrpc":"2.0","id":1,)"
                                    R"("method":"ping","params":{"verbose":true}}}}})";
    return text;
}

/// Records with texts, numbers, flags and nesting.
std::string recordsText(std::size_t byteCount) {
    std::string built = "[";
    for (int record = 0; built.size() < byteCount; ++record) {
        built += R"({"id":)" + std::to_string(record * 7919LL) + R"(,"name":"service number )" +
                 std::to_string(record) + R"(","ratio":)" + std::to_string(record) +
                 R"(.375,"enabled":true,"note":"line one\nline \"two\"","tags":["alpha","beta",null,-12],)" +
                 R"("endpoint":{"host":"internal.example","path":"/v1/records/query","port":8443}},)";
    }
    built.back() = ']';
    return built;
}

const std::string& documentText() {
    static const std::string text = recordsText(1u << 20);
    return text;
}

/// As large as a message may be.
const std::string& largestText() {
    static const std::string text = recordsText(16u << 20);
    return text;
}

/// One MiB in one text, as a forwarded file would be.
const std::string& longTextText() {
    static const std::string text = "{\"content\":\"" + std::string(1u << 20, 'x') + "\"}";
    return text;
}

using Source = const std::string& (*)();

void parse(benchmark::State& state, Source source, JsonReading reading = JsonReading::Dialect) {
    const std::string& text = source();
    ZnString error;
    for (auto _ : state) {
        ZnJsonDocument document = ZnJsonDocument::fromJson(text, &error, reading);
        benchmark::DoNotOptimize(document);
    }
    if (!error.isEmpty())
        state.SkipWithError(error.data());
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

void write(benchmark::State& state, Source source) {
    const ZnJsonDocument document = ZnJsonDocument::fromJson(source(), nullptr);
    std::size_t byteCount = 0;
    for (auto _ : state) {
        const ZnString text = document.toJson();
        byteCount = text.size();
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(byteCount));
}

void copy(benchmark::State& state, Source source) {
    const ZnJsonDocument document = ZnJsonDocument::fromJson(source(), nullptr);
    for (auto _ : state) {
        ZnJsonValue root = document.root();
        benchmark::DoNotOptimize(root);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(source().size()));
}

#ifdef ZN_HAS_RAPIDJSON
// A well-known library to compare with, where it is installed.
void otherParse(benchmark::State& state, Source source) {
    const std::string& text = source();
    for (auto _ : state) {
        rapidjson::Document document;
        document.Parse(text.data(), text.size());
        benchmark::DoNotOptimize(document);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

void otherWrite(benchmark::State& state, Source source) {
    rapidjson::Document document;
    document.Parse(source().data(), source().size());
    std::size_t byteCount = 0;
    for (auto _ : state) {
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        document.Accept(writer);
        byteCount = buffer.GetSize();
        benchmark::DoNotOptimize(buffer.GetString());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(byteCount));
}

BENCHMARK_CAPTURE(otherParse, message, messageText);
BENCHMARK_CAPTURE(otherParse, largest, largestText);
BENCHMARK_CAPTURE(otherWrite, message, messageText);
BENCHMARK_CAPTURE(otherWrite, largest, largestText);
#endif

BENCHMARK_CAPTURE(parse, message, messageText);
BENCHMARK_CAPTURE(parse, largest, largestText);
BENCHMARK_CAPTURE(parse, exactLargest, largestText, JsonReading::Exact);
BENCHMARK_CAPTURE(write, largest, largestText);
BENCHMARK_CAPTURE(parse, document, documentText);
BENCHMARK_CAPTURE(parse, longText, longTextText);
BENCHMARK_CAPTURE(parse, exactMessage, messageText, JsonReading::Exact);
BENCHMARK_CAPTURE(parse, exactDocument, documentText, JsonReading::Exact);
BENCHMARK_CAPTURE(write, message, messageText);
BENCHMARK_CAPTURE(write, document, documentText);
BENCHMARK_CAPTURE(write, longText, longTextText);
BENCHMARK_CAPTURE(copy, message, messageText);
BENCHMARK_CAPTURE(copy, document, documentText);

} // namespace
