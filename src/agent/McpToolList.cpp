#include "agent/McpToolList.h"

#include "agent/McpJson.h"
#include "agent/McpRpcAnswer.h"
#include "agent/McpRpcRequest.h"

#include <utility>

McpForwardRequest McpToolList::nextRequest() const {
    ZnJsonObject params;
    if (!cursor_.isEmpty())
        params["cursor"] = cursor_;
    return mcp::newRequest("tools/list", std::move(params), {.isModern = isModern_});
}

bool McpToolList::take(ZnJsonValue answer, std::size_t byteCount) {
    ZnJsonObject* message = answer.object();
    ZnJsonObject* result = message == nullptr ? nullptr : (*message)["result"].object();
    ZnJsonArray* tools = result == nullptr ? nullptr : (*result)["tools"].array();
    problem_ = "the service gave no list of tools";
    if (tools == nullptr)
        return false;
    for (ZnJsonValue& tool : *tools)
        tools_.append(std::move(tool));
    cursor_ = ZnString((*result)["nextCursor"].string());
    byteCount_ += byteCount;
    problem_ = "the list of the service's tools is too long";
    const bool isLast = cursor_.isEmpty();
    return tools_.size() <= kMaxTools && byteCount_ <= maxBytes_ && (isLast || ++pageCount_ < kMaxPages);
}

bool McpToolListAnswer::isLarge() const noexcept {
    return list_.byteCount() >= McpRpcAnswer::kLargeBytes;
}

void McpToolListAnswer::build() {
    ZnJsonArray tools = list_.takeTools();
    if (list_.isModern())
        toolHeaders_ = McpToolHeaders::of(tools);
    if (service_->rules.hasToolRules())
        service_->rules.filterTools(&tools);
    const ZnJsonValue payload(ZnJsonObject{{"tools", std::move(tools)}});
    text_ = ZnByteArray(mcp::jsonRpcResultTo_(idText_.view(), mcp::toolResult_(payload, false).view()));
}
