#pragma once

#include "agent/McpBridgeServiceRecord.h"
#include "agent/McpForwardCall.h"
#include "agent/McpToolHeaders.h"
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
    /// First, once: finds out what is to be sent, and whether the service may get it.
    void read();
    /// Of a call of a tool that may be sent; empty for another request.
    const ZnString& toolName() const noexcept { return toolName_; }
    /// The request is to be put in revision 2026-07-28; `headers`: what the tool mirrors, null when that is not known.
    void setModern(McpToolHeaders::Ref headers) {
        isModern_ = true;
        toolHeaders_ = std::move(headers);
    }
    /// Then, once: puts it into text.
    void write();
    /// Why it cannot be sent; null when it can.
    const char* refusal() const noexcept { return refusal_; }
    int refusalStatus() const noexcept { return refusalStatus_; }
    McpForwardRequest take() { return std::move(request_); }

private:
    void judgeRequest_(const ZnJsonObject& texts);
    void judgeToolCall_();
    void writeRequest_(ZnJsonObject& request);
    void writeToolCall_();
    void makeModern_(ZnJsonObject& request);
    void takeInput_(ZnJsonObject* params);
    void addHeaders_(const ZnJsonObject* toolArguments);
    void noteNames_(const ZnJsonObject& request);
    void refuse_(const char* text, int status);

    Form form_;
    const std::shared_ptr<const McpBridgeServiceRecord> service_;
    ZnJsonDocument message_;
    ZnJsonDocument other_;              // the message in the other reading
    ZnJsonObject* arguments_ = nullptr; // of one of them, after read()
    ZnByteArray text_;
    JsonReading reading_;
    bool isOther_;
    bool wantsProgress_ = false;
    bool tellsNames_ = false;
    bool isModern_ = false;
    McpToolHeaders::Ref toolHeaders_;
    ZnString toolName_;
    const char* refusal_ = nullptr;
    int refusalStatus_ = 0; // of HTTP
    McpForwardRequest request_;
};

namespace mcp {

struct NewRequestForm {
    bool wantsProgress = false;
    bool isModern = false; // in revision 2026-07-28 of the protocol
};
/// A request of the agent's own, which is read and answered exactly. Without params when they are empty.
McpForwardRequest newRequest(const char* method, ZnJsonObject params, NewRequestForm form = {});

} // namespace mcp
