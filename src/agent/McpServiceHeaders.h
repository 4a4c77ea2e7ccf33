#pragma once

#include "agent/McpBridgeServiceRecord.h"
#include "core/io/ZnHttpClient.h"

namespace mcp {

/// What every request to a service carries: its credentials, and whom to trust.
inline void setServiceHeaders(ZnHttpClient& client, const McpBridgeServiceRecord& service) {
    if (!service.bearerToken.isEmpty())
        client.setHeader("Authorization", "Bearer " + service.bearerToken);
    for (const auto& [name, value] : service.headers)
        client.setHeader(name, value);
    if (!service.tlsCaFile.isEmpty())
        client.setCaFile(service.tlsCaFile);
}

} // namespace mcp
