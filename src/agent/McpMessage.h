#pragma once

#include "core/io/http/ZnHttpContext.h"
#include "core/types/ZnJsonDocument.h"
#include "core/types/ZnJsonObject.h"

/// One message of a client that is being answered: the request it came in, and what it says.
///
/// Thread: the handler's fiber. Owner: the handler's frame.
struct McpMessage {
    explicit McpMessage(ZnHttpContext& httpContext) : context(httpContext) {}

    const ZnJsonObject& object() const { return *document.root().object(); }

    ZnHttpContext& context;
    ZnJsonDocument document; // an object
};
