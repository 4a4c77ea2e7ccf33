#pragma once

#include "agent/McpBridgeServiceRecord.h"
#include "agent/McpForwardCall.h"
#include "agent/McpMessage.h"
#include "agent/McpServiceNotes.h"
#include "agent/McpWork.h"
#include "core/types/ZnMap.h"
#include "core/types/ZnString.h"

#include <cstddef>
#include <functional>
#include <memory>

/// The sessions that the agent keeps with services for its clients: one for each client session and service.
///
/// The first call that needs one does the handshake with the service; calls that come meanwhile wait for it.
/// Thread: that of the loop, on fibers. Owner: shared by all calls, which may outlive the dispatcher.
class McpServiceSessions {
public:
    static constexpr std::size_t kMaxSessions = 20000;
    static constexpr std::size_t kMaxWaiting = 200;               // for handshakes of other calls: each holds a fiber
    static constexpr const char* kProtocolVersion = "2025-11-25"; // asked for; the service may choose an older one

    /// What the service has agreed on; the id is empty when it keeps no sessions.
    struct Session {
        ZnString id;
        ZnString protocolVersion;
    };
    using SessionRef = std::shared_ptr<const Session>;
    using ServiceRef = std::shared_ptr<const McpBridgeServiceRecord>;
    /// Sends one request to the service. Parks.
    using Exchange = std::function<McpForwardResult(McpForwardRequest)>;

    McpServiceSessions(std::shared_ptr<McpWorkers> workers, std::shared_ptr<McpServiceNotes> notes)
        : workers_(std::move(workers)), notes_(std::move(notes)) {}

    /// The session of the message's client with its service, after a handshake if there is none yet; parks. Null, with
    /// the reason, when there is none to be had. `maxWaitMs`: for the handshake of another call.
    SessionRef open(const McpMessage& message, int maxWaitMs, const Exchange& exchange, McpForwardResult* failure);
    /// The service does not know that session any more.
    void forget(const McpMessage& message, const SessionRef& session);
    /// The client's session has ended: those with services are ended, too.
    void endClient(const ZnString& clientSessionId);
    void endAll();

private:
    struct Entry_;
    using EntryRef_ = std::shared_ptr<Entry_>;
    using Services_ = ZnMap<ZnString, EntryRef_>;

    EntryRef_ find_(const McpMessage& message) const;
    EntryRef_ entryFor_(const McpMessage& message);
    void remove_(const ZnString& clientId, const EntryRef_& entry);
    bool handshake_(Entry_& entry, const Exchange& exchange, McpForwardResult* failure);
    SessionRef agree_(McpForwardResult* answer);
    void end_(const Entry_& entry) const;

    const std::shared_ptr<McpWorkers> workers_;
    const std::shared_ptr<McpServiceNotes> notes_;
    ZnMap<ZnString, Services_> byClient_;
    std::size_t count_ = 0; // of entries
    std::size_t waitingCount_ = 0;
};
