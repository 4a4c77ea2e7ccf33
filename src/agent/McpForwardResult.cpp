#include "agent/McpForwardResult.h"

#include "agent/McpJson.h"
#include "agent/McpMessage.h"
#include "agent/McpText.h"
#include "agent/McpWork.h"

#include <memory>
#include <utility>

namespace mcp {
namespace {

struct Reading {
    ZnByteArray text;
    ZnJsonValue message;

    void run() {
        const ZnByteArray repaired = wellFormed(std::move(text));
        ZnString error;
        ZnJsonDocument document = ZnJsonDocument::fromJson(repaired.view(), &error, JsonReading::Exact, kMaxJsonValues);
        if (error.isEmpty())
            message = std::move(document.root());
    }
};

} // namespace

ZnJsonValue readAnswer(McpForwardResult* result, McpWorkers& workers) {
    if (result->isDecoded)
        return std::move(result->body);
    const auto reading = std::make_shared<Reading>();
    reading->text = std::move(result->rawBody);
    if (reading->text.size() < McpMessage::kLargeBytes)
        reading->run();
    else if (!workers.await([reading] { reading->run(); }))
        return {};
    return std::move(reading->message);
}

} // namespace mcp
