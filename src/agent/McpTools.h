#pragma once

#include "agent/McpMessage.h"
#include "agent/McpReply.h"
#include "agent/McpServiceCall.h"
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
    McpTools(std::shared_ptr<McpServiceList> services, std::shared_ptr<McpWorkers> workers)
        : context_{std::move(services), std::move(workers)} {}

    /// Set before the first message.
    void setMaxAnswerBytes(std::int64_t maxBytes) { context_.maxAnswerBytes = maxBytes; }
    /// Messages are read exactly, not in the agent's JSON dialect.
    void setExact(bool isExact) { context_.isExact = isExact; }
    void setProgress(bool isOn) { context_.usesProgress = isOn; }
    McpKeptConnections& connections() const { return *context_.connections; }
    void setObserver(std::shared_ptr<McpObserver> observer) { context_.observer = std::move(observer); }
    void setCatalogue(McpToolCatalogue::Options options) {
        catalogue_ = McpToolCatalogue(options);
        options.modern = true;
        modernCatalogue_ = McpToolCatalogue(options);
    }

    const McpToolCatalogue& catalogue() const noexcept {
        return context_.services->hasModern() ? modernCatalogue_ : catalogue_;
    }

    /// The response to a "tools/call". Of one that a service is to get, nothing, with `message->service` set.
    ZnByteArray answer(McpMessage* message) const;
    /// The response to a message that has a service to go to. Parks until the service has answered.
    McpReply forward(McpMessage& message) { return McpServiceCall(context_, message).run(); }

    /// Ends the call that the message cancels; nothing when it has ended.
    void cancel(const McpMessage& message);
    /// Ends the calls in flight; from now on none begins.
    void stop() {
        context_.inFlight->stop();
        context_.sessions->endAll();
        context_.connections->stop();
    }
    bool isIdle() const noexcept { return context_.inFlight->isEmpty() && context_.notes->isIdle(); }
    std::size_t callsInFlight() const noexcept { return context_.inFlight->size(); }
    /// The client's session has ended, and with it what was kept for it.
    void endClient(const ZnString& sessionId) { context_.sessions->endClient(sessionId); }

private:
    ZnString getService_(const ZnJsonObject& arguments, McpCallOutcome* outcome) const;
    McpServiceList::Ref serviceToCall_(McpToolCatalogue::Tool tool, const ZnJsonObject& arguments,
                                       ZnString* refusal) const;

    McpCallContext context_;
    McpToolCatalogue catalogue_{{}};
    McpToolCatalogue modernCatalogue_{{.modern = true}};
};
