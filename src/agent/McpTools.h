#pragma once

#include "agent/McpCallsInFlight.h"
#include "agent/McpMessage.h"
#include "agent/McpReply.h"
#include "agent/McpServiceList.h"
#include "agent/McpToolCatalogue.h"
#include "agent/McpWork.h"
#include "core/types/ZnJsonObject.h"

#include <cstdint>
#include <memory>

/// The tools: two that show the allowlist, and one that forwards a call to a service of it.
///
/// Thread: answer() and catalogue() any; forward() and the rest that of the loop. Owner: the dispatcher; outlives every
/// call in flight.
class McpTools {
public:
    static constexpr std::int64_t kDefaultAnswerBytes = 16777216; // of a service

    McpTools(std::shared_ptr<McpServiceList> services, std::shared_ptr<McpWorkers> workers)
        : services_(std::move(services)), workers_(std::move(workers)) {}

    /// Set before the first message.
    void setMaxAnswerBytes(std::int64_t maxBytes) { maxAnswerBytes_ = maxBytes; }
    /// Messages are read exactly, not in the agent's JSON dialect.
    void setExact(bool isExact) { isExact_ = isExact; }
    void setCatalogue(const McpToolCatalogue::Options& options) { catalogue_ = McpToolCatalogue(options); }

    const McpToolCatalogue& catalogue() const noexcept { return catalogue_; }

    /// The response to a "tools/call". Of one that a service is to get, nothing, with `message->service` set.
    ZnByteArray answer(McpMessage* message) const;
    /// The response to a message that has a service to go to. Parks until the service has answered.
    McpReply forward(McpMessage& message);

    /// Ends the call that the message cancels; nothing when it has ended.
    void cancel(const McpMessage& message);
    /// Ends the calls in flight; from now on none begins.
    void stop() { calls_->stop(); }
    bool isIdle() const noexcept { return calls_->isEmpty(); }

private:
    ZnString getService_(const ZnJsonObject& arguments) const;
    McpServiceList::Ref serviceToCall_(const ZnJsonObject& arguments, ZnString* refusal) const;
    /// What is to be sent; nothing, with the reason, when it cannot be.
    bool build_(McpMessage& message, McpForwardRequest* request, ZnString* refusal);
    McpReply send_(McpMessage& message, McpForwardRequest request);

    const std::shared_ptr<McpServiceList> services_;
    const std::shared_ptr<McpWorkers> workers_;
    const std::shared_ptr<McpCallsInFlight> calls_ = std::make_shared<McpCallsInFlight>();
    std::int64_t maxAnswerBytes_ = kDefaultAnswerBytes;
    bool isExact_ = false;
    McpToolCatalogue catalogue_{{}};
};
