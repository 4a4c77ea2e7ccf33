#pragma once

#include "agent/McpBridgeServiceRecord.h"
#include "agent/McpServiceList.h"
#include "core/io/ZnHttpConnectionPool.h"

#include <cstddef>
#include <memory>

/// Which requests to services share connections that are kept.
///
/// Each record has connections of its own, which end with it: another token may be in force, or another trust.
/// Thread: that of the loop, but for the constructor and the settings. Owner: shared by the tools and what they send.
class McpKeptConnections {
public:
    explicit McpKeptConnections(std::shared_ptr<McpServiceList> services) : services_(std::move(services)) {}

    /// Both before the first request: whether a service has it that does not say, and how many wait for each at most.
    void setDefault(bool isOn) { isOn_ = isOn; }
    void setMaxIdle(std::size_t count) { maxIdle_ = count; }

    /// Has `client`, which takes a pool as ZnHttpClient does, use them if the service is to.
    template <typename Client>
    void apply(Client& client, const McpBridgeServiceRecord& service) {
        if (service.keepAlive.value_or(isOn_))
            client.setConnectionPool(pool_(), partition_(service));
    }
    /// Closes what is idle; from now on nothing is kept.
    void stop();
    std::size_t idleCount() const noexcept { return connections_ ? connections_->idleCount() : 0; }

private:
    ZnHttpConnectionPool* pool_();
    static ZnString partition_(const McpBridgeServiceRecord& service);

    const std::shared_ptr<McpServiceList> services_;
    bool isOn_ = false;
    std::size_t maxIdle_ = ZnHttpConnectionPool::kDefaultMaxIdlePerKey;
    bool isStopped_ = false;
    unsigned listSerial_ = 0;                           // of the list for which they are kept
    std::unique_ptr<ZnHttpConnectionPool> connections_; // null before the first use and after stop()
};
