#include "agent/McpKeptConnections.h"

#include <utility>

ZnHttpConnectionPool* McpKeptConnections::pool_() {
    if (isStopped_)
        return nullptr;
    if (!connections_) {
        connections_ = std::make_unique<ZnHttpConnectionPool>();
        connections_->setMaxIdlePerKey(maxIdle_);
    }
    const unsigned serial = services_->serial();
    if (std::exchange(listSerial_, serial) != serial)
        connections_->closeIdle(); // those of records that are gone would wait for nobody
    return connections_.get();
}

/// No secret: it may be seen where connections are looked at.
ZnString McpKeptConnections::partition_(const McpBridgeServiceRecord& service) {
    return service.id + "#" + ZnString::number(service.serial.number);
}

void McpKeptConnections::stop() {
    isStopped_ = true;
    connections_.reset();
}
