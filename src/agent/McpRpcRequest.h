#pragma once

#include "agent/McpBridgeServiceRecord.h"
#include "agent/McpForwardCall.h"
#include "core/types/ZnByteArray.h"
#include "core/types/ZnJsonDocument.h"

#include <memory>

/// What a client asks to be sent to a service, made from its message, which is given up by it.
///
/// Thread: a value; build() may run on another thread than the rest, since a large message takes long.
class McpRpcRequest {
public:
    /// AsGiven: the argument "request"; ToolCall: one that calls the tool of the arguments "name" and "arguments".
    enum class Form { AsGiven, ToolCall };

    /// `message`: a "tools/call" with such arguments, read from `text`. The service wants it `inReading`; with
    /// `isOther` that is not how the message was read.
    McpRpcRequest(Form form, std::shared_ptr<const McpBridgeServiceRecord> service, ZnJsonDocument message,
                  ZnByteArray text, JsonReading inReading, bool isOther)
        : form_(form),
          service_(std::move(service)),
          message_(std::move(message)),
          text_(std::move(text)),
          reading_(inReading),
          isOther_(isOther) {}

    /// A tool that is called is to tell of its progress.
    void setWantsProgress(bool isOn) { wantsProgress_ = isOn; }
    /// The request is to say which method, and which tool, it calls; a tool call always does.
    void setTellsNames(bool isOn) { tellsNames_ = isOn; }
    /// Once.
    void build();
    /// Why it cannot be sent; null when it can.
    const char* refusal() const noexcept { return refusal_; }
    int refusalStatus() const noexcept { return refusalStatus_; }
    McpForwardRequest take() { return std::move(request_); }

private:
    void takeRequest_(const ZnJsonObject& arguments, const ZnJsonObject& texts);
    void makeToolCall_(const ZnJsonObject& arguments);

    void noteNames_(const ZnJsonObject& request);
    void refuse_(const char* text, int status);

    Form form_;
    const std::shared_ptr<const McpBridgeServiceRecord> service_;
    ZnJsonDocument message_;
    ZnByteArray text_;
    JsonReading reading_;
    bool isOther_;
    bool wantsProgress_ = false;
    bool tellsNames_ = false;
    const char* refusal_ = nullptr;
    int refusalStatus_ = 0; // of HTTP
    McpForwardRequest request_;
};

namespace mcp {

/// A request of the agent's own, which is read and answered exactly. Without params when they are empty.
McpForwardRequest newRequest(const char* method, ZnJsonObject params, bool wantsProgress = false);

} // namespace mcp
