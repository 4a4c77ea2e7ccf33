#pragma once

#include "agent/McpBridgeServiceRecord.h"
#include "agent/McpForwardCall.h"
#include "agent/McpKeptConnections.h"
#include "core/types/ZnString.h"

#include <cstddef>
#include <memory>

/// Requests to services whose answers nobody waits for: that a session is over, that a call is cancelled.
///
/// They are sent as far as that can be done in a few seconds, and no more than a few at a time; a service does without
/// the others in the end.
/// Thread: that of the loop. Owner: shared by those who send them and those under way.
class McpServiceNotes : public std::enable_shared_from_this<McpServiceNotes> {
public:
    static constexpr std::size_t kMaxAtATime = 64;
    static constexpr int kLimitMs = 3000;

    explicit McpServiceNotes(std::shared_ptr<McpKeptConnections> connections) : connections_(std::move(connections)) {}

    /// `method`: one of ZnHttpClient.
    void send(std::shared_ptr<const McpBridgeServiceRecord> service, int method, McpForwardRequest request);
    /// Tells the service that nobody waits for the answer to that request any more.
    void cancel(std::shared_ptr<const McpBridgeServiceRecord> service, const ZnJsonValue& requestId,
                const ZnString& sessionId, const ZnString& protocolVersion);
    bool isIdle() const noexcept { return count_ == 0; }

private:
    class Note_;
    const std::shared_ptr<McpKeptConnections> connections_;
    std::size_t count_ = 0;
};
