#pragma once

#include "agent/McpBridgeServiceRecord.h"
#include "core/io/http/ZnHttpContext.h"
#include "core/types/ZnJsonDocument.h"
#include "core/types/ZnJsonObject.h"

#include <memory>

/// One message of a client that is being answered: the request it came in, and what it says.
///
/// Thread: a value; a large message is read, and mostly answered, away from the loop.
/// Owner: the handler's frame, or the work that the frame waits for.
struct McpMessage {
    explicit McpMessage(ZnHttpContext& httpContext) : context(httpContext) {}

    const ZnJsonObject& object() const { return *document.root().object(); }

    ZnHttpContext& context;
    ZnJsonDocument document; // an object
    /// Set: there is no answer yet, since the message is a call that this service is to get.
    std::shared_ptr<const McpBridgeServiceRecord> service;
    ZnString idText; // of such a call, as JSON
};
