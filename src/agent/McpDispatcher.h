#pragma once

#include "agent/McpBridgeSession.h"
#include "agent/McpMessage.h"
#include "agent/McpReply.h"
#include "agent/McpServiceList.h"
#include "agent/McpSessionTable.h"
#include "agent/McpTools.h"
#include "agent/McpWork.h"
#include "core/platform/ZnMonotonicClock.h"
#include "core/types/ZnJsonObject.h"
#include "core/types/ZnMutex.h"

#include <functional>
#include <memory>
#include <string_view>
#include <vector>

/// Answers messages: the checks of JSON-RPC, the sessions, the methods. It knows nothing of how they come and go.
///
/// Thread: that of its front, whose fibers interleave where one waits for a service; large messages are read and
/// answered on workers. No lock is held across a wait. Owner: shared by the agent and by every front that waits for an
/// answer, which may be left alone with it.
class McpDispatcher : public std::enable_shared_from_this<McpDispatcher> {
public:
    static constexpr const char* kProtocolVersion = "2025-06-18";

    explicit McpDispatcher(std::shared_ptr<McpServiceList> services);

    /// Set before the first message. Exact: JSON values stay as they are written, and any version is taken in
    /// `initialize`.
    void setExact(bool isExact);
    void setMaxAnswerBytes(std::int64_t maxBytes) { tools_.setMaxAnswerBytes(maxBytes); }
    /// Calls tell of their progress, can be cancelled and cancel upstream, and streams of services are taken up again.
    void setProgress(bool isOn) {
        usesProgress_ = isOn;
        tools_.setProgress(isOn);
    }
    /// Of requests to services; see there when it may be set.
    McpKeptConnections& connections() const { return tools_.connections(); }
    void setCatalogue(const McpToolCatalogue::Options& options) { tools_.setCatalogue(options); }
    void setClock(std::function<long long()> clock) { clock_ = std::move(clock); }

    const std::shared_ptr<McpWorkers>& workers() const noexcept { return workers_; }

    /// From now on the keeper is told of the sessions, and those of before go on.
    void keepSessions(std::shared_ptr<McpSessionKeeper> keeper, std::vector<McpKeptSession> sessions);
    /// Is told of every message and call.
    void setObserver(std::shared_ptr<McpObserver> observer) {
        tools_.setObserver(observer);
        observer_ = std::move(observer);
    }
    /// Is told of the calls alone: without the other one no records of messages are made, which costs time with each.
    void setCallObserver(std::shared_ptr<McpObserver> observer) { tools_.setObserver(std::move(observer)); }

    /// Parks where the answer has to be waited for. The caller holds a reference to the dispatcher meanwhile.
    McpReply answer(McpMessage&& message);
    /// The answer to a front's word that the session is over.
    McpReply endSession(std::string_view id);

    /// Ends the calls in flight; from now on none begins.
    void stop() { tools_.stop(); }
    bool isIdle() const noexcept { return tools_.isIdle(); }
    std::size_t callsInFlight() const noexcept { return tools_.callsInFlight(); }
    std::size_t sessionCount() {
        const ZnMutexLocker locker(sessionsLock_);
        return sessions_.size();
    }

private:
    McpReply answer_(McpMessage& message);
    void finish_(McpMessage& message, McpReply* reply);
    McpReply forwardLater_(McpMessage& message);
    void tellObserver_(McpRequestRecord& record, const McpReply& reply, std::size_t toldBytes) const;

    using SessionRef_ = std::shared_ptr<McpBridgeSession>;

    // Any thread.
    McpReply process_(McpMessage* message);
    McpReply processObject_(McpMessage* message);
    McpReply notify_(McpMessage* message, std::string_view method);
    McpReply dispatch_(McpMessage* message, std::string_view method);
    McpReply initialize_(McpMessage* message);
    ZnJsonObject initializeResult_() const;
    SessionRef_ createSession_(const ZnJsonObject& params, ZnString* evicted);
    /// The session that the message names; null when there is none.
    SessionRef_ findSession_(const McpMessage& message);

    const std::shared_ptr<McpWorkers> workers_ = std::make_shared<McpWorkers>();
    McpTools tools_;
    std::shared_ptr<McpObserver> observer_; // null without one
    bool isExact_ = false;
    bool usesProgress_ = false;
    std::function<long long()> clock_ = monotonicNowNs;
    ZnMutex sessionsLock_; // the keeper's queue is the only lock taken while it is held
    McpSessionTable sessions_ ZN_GUARDED_BY(sessionsLock_);
};
