#pragma once

#include "agent/McpBridgeServiceRecord.h"
#include "agent/McpForwardCall.h"
#include "agent/McpMessage.h"
#include "agent/McpServiceList.h"
#include "agent/McpToolHeaders.h"
#include "agent/McpWork.h"
#include "core/types/ZnMap.h"
#include "core/types/ZnString.h"

#include <functional>
#include <memory>
#include <optional>

/// What is known about services that may speak revision 2026-07-28 of the protocol: whether they do, and which
/// arguments of their tools are mirrored in headers. A list that comes in force makes it forgotten.
///
/// A service whose era is not known is asked by the first call; calls that come meanwhile wait for it.
/// Thread: that of the loop, on fibers. Owner: shared by all calls, which may outlive the dispatcher.
class McpModernServices {
public:
    using ServiceRef = McpServiceList::Ref;
    /// Sends one request to the service. Parks.
    using Exchange = std::function<McpForwardResult(McpForwardRequest)>;

    McpModernServices(std::shared_ptr<McpServiceList> services, std::shared_ptr<McpWorkers> workers)
        : services_(std::move(services)), workers_(std::move(workers)) {}

    /// So many calls wait for an answer; each holds a fiber, and other services need some, too.
    static constexpr std::size_t kMaxWaiting = 200;

    /// Whether the message's service speaks the revision; parks while it is asked. Nothing, with `*failure` a result
    /// without success, when its answer is no verdict; with kTooManyBytes when too many calls wait for it. `maxWaitMs`:
    /// for what another call asks.
    std::optional<bool> speaks(const McpMessage& message, int maxWaitMs, const Exchange& exchange,
                               McpForwardResult* failure);

    /// What a list of the service's tools has said.
    void learn(const ServiceRef& service, const McpToolHeaders::ByTool& headers);
    /// Null when nothing is known that the tool mirrors.
    McpToolHeaders::Ref headersOf(const ServiceRef& service, const ZnString& tool);

private:
    struct Entry_;
    using EntryRef_ = std::shared_ptr<Entry_>;

    EntryRef_ entryFor_(const ServiceRef& service);
    void ask_(const EntryRef_& entry, const Exchange& exchange, McpForwardResult* failure);

    const std::shared_ptr<McpServiceList> services_;
    const std::shared_ptr<McpWorkers> workers_;
    unsigned listSerial_ = 0; // of the list that the entries are about
    ZnMap<ZnString, EntryRef_> byId_;
};
