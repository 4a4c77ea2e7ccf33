#pragma once

#include "agent/McpMessage.h"
#include "agent/McpReply.h"
#include "core/io/ZnAbstractSocket.h"
#include "core/types/ZnByteArray.h"
#include "core/types/ZnString.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>

/// An answer over HTTP that is a stream of events: messages about a call as they come, then its answer.
///
/// A comment goes out from time to time, so that nobody on the way takes the connection for dead. A client that does
/// not read misses messages about the call, but not the answer.
/// Thread: that of the loop, on the fiber that runs it. Owner: that fiber's frame.
class McpEventStream {
public:
    static constexpr int kKeepAliveMs = 15000;
    static constexpr int kLastWriteMs = 60000; // for a client to take the answer

    /// Takes the socket over; `head` ends with its empty line and announces chunks.
    McpEventStream(ZnAbstractSocket* socket, ZnString head);
    ~McpEventStream();
    McpEventStream(const McpEventStream&) = delete;
    McpEventStream& operator=(const McpEventStream&) = delete;

    /// Runs the call, which parks, and sends its answer.
    void run(const std::function<McpReply(McpCaller&)>& call);

private:
    void discardInput_();
    bool tell_(ZnByteArray message);
    void writeEvent_(ZnByteArray text);
    void writeChunk_(std::string_view before, ZnByteArray text, std::string_view after);

    ZnPointer<ZnAbstractSocket> socket_;
    McpCaller caller_;
    ZnObject receiver_; // of the socket's signals
};
