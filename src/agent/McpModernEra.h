#pragma once

#include "agent/McpMessage.h"
#include "agent/McpReply.h"
#include "core/types/ZnByteArray.h"

class McpTools;

/// Answers the messages of clients that open no session: each says in its "_meta" which version of the protocol it
/// speaks, and over HTTP repeats some of what it says in headers.
///
/// Whatever is wrong with a message, the answer is an error of JSON-RPC, with a status of HTTP.
/// Thread: any. Owner: the frame that answers a message; the tools outlive it.
class McpModernEra {
public:
    static constexpr const char* kVersion = "2026-07-28";

    explicit McpModernEra(const McpTools& tools) : tools_(tools) {}

    /// Whether a message that has been read is of this era.
    static bool speaks(const McpMessage& message);
    /// Whether its header names this era, whatever it says itself.
    static bool isAnnounced(const McpMessage& message) { return message.mirror && message.protocolVersion == kVersion; }
    /// The answer to an announced message that is no single JSON object.
    static McpReply refuseUnreadable(McpMessage* message);

    /// The answer, unless the message is a call that a service is to get.
    McpReply answer(McpMessage* message) const;
    /// Gives the result of a call the members that every result of this era has. What the result of a service's own
    /// tool says stays as it is. Nothing is done to errors.
    static void complete(McpToolCatalogue::Tool tool, ZnByteArray* response);

private:
    McpReply dispatch_(McpMessage* message) const;
    McpReply callTool_(McpMessage* message) const;

    const McpTools& tools_;
};
