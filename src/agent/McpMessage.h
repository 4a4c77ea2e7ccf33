#pragma once

#include "agent/McpBridgeServiceRecord.h"
#include "agent/McpMirror.h"
#include "agent/McpObserver.h"
#include "agent/McpToolCatalogue.h"
#include "core/types/ZnByteArray.h"
#include "core/types/ZnJsonDocument.h"
#include "core/types/ZnJsonObject.h"
#include "core/types/ZnString.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

/// Who sent a message, as long as the answer is awaited. The front tells when nobody awaits it any more.
///
/// Thread: that of the front. Owner: the front's frame, which outlives the call into the dispatcher.
class McpCaller {
public:
    /// `onGone` is called at most once, at once when the caller has left already; it must not park. Empty: nobody needs
    /// to know.
    void whenGone(std::function<void()> onGone) {
        onGone_ = std::move(onGone);
        if (hasLeft_)
            leave();
    }
    void leave() {
        hasLeft_ = true;
        if (onGone_)
            std::exchange(onGone_, nullptr)();
    }

    /// Takes messages about a call, each as JSON, while its answer is awaited; false when one does not go out. It must
    /// not park. Empty: it takes none.
    using Sink = std::function<bool(ZnByteArray message)>;
    void setSink(Sink sink) { sink_ = std::move(sink); }
    bool takesMessages() const noexcept { return sink_ != nullptr; }
    void tell(ZnByteArray message) {
        const std::size_t byteCount = message.size();
        if (sink_ && sink_(std::move(message)))
            toldBytes_ += byteCount;
    }
    std::size_t toldBytes() const noexcept { return toldBytes_; }
    /// The front can take messages, but has to begin another form of answer first: see McpReply::later.
    bool canOpenStream = false;

private:
    std::function<void()> onGone_;
    bool hasLeft_ = false;
    Sink sink_;
    std::size_t toldBytes_ = 0; // of messages about calls
};

/// One message of a client that is being answered: what came with it, and what it says.
///
/// Thread: a value; a large message is read, and mostly answered, away from the front's thread.
/// Owner: the dispatcher, while it answers.
struct McpMessage {
    McpMessage(ZnByteArray bodyText, McpCaller& sender) : body(std::move(bodyText)), caller(&sender) {}

    static constexpr std::size_t kLargeBytes = 262144; // from here on it is too much for the front's thread
    bool isLarge() const noexcept { return body.size() >= kLargeBytes; }
    const ZnJsonObject& object() const { return *document.root().object(); }

    ZnByteArray body;                 // JSON text, as sent
    std::string_view sessionId;       // these two are the front's, which outlive the call; empty: there is none
    std::string_view protocolVersion; // as told beside the message
    McpCaller* caller;
    bool mayCancel = false; // calls of its session, by "notifications/cancelled"
    /// What HTTP repeats of it; null where there is no HTTP, or nobody looks at it.
    std::shared_ptr<const McpMirror> mirror;
    /// Whose calls without a session are, where a front has one client; empty: each call stands by itself. A constant.
    std::string_view owner;
    bool isModern = false; // it needs no session, see McpModernEra

    /// What is told to observers about it; null when there are none. Shared: a worker may outlive the front's frame.
    std::shared_ptr<McpRequestRecord> record;
    std::shared_ptr<const McpBridgeSession> session; // of a call; null before it is known
    ZnJsonDocument document;                         // an object, once the message has been read
    /// Set: there is no answer yet, since the message is a call that this service is to get.
    std::shared_ptr<const McpBridgeServiceRecord> service;
    McpToolCatalogue::Tool tool = McpToolCatalogue::Tool::Rpc; // of such a call
    std::optional<ZnJsonValue> progressToken;                  // with which the client wants to be told of its progress
    ZnString idText;                                           // of such a call, as JSON
    ZnString evictedSession;  // made room for the one that this message has opened; empty: none did
    ZnString cancelledIdText; // of the call that this message cancels, as JSON; empty: it cancels none
};
