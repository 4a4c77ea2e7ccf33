#pragma once

#include "agent/McpCallsInFlight.h"
#include "agent/McpForwardCall.h"
#include "agent/McpMessage.h"
#include "agent/McpModernServices.h"
#include "agent/McpObserver.h"
#include "agent/McpReply.h"
#include "agent/McpRpcRequest.h"
#include "agent/McpServiceList.h"
#include "agent/McpServiceSessions.h"
#include "agent/McpToolAnswer.h"
#include "agent/McpWork.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

/// What all calls to services share.
///
/// Thread: that of the loop, once the first message has come. Owner: the tools, which outlive every call.
struct McpCallContext {
    static constexpr std::int64_t kDefaultAnswerBytes = 16777216; // of a service

    const std::shared_ptr<McpServiceList> services;
    const std::shared_ptr<McpWorkers> workers;
    const std::shared_ptr<McpCallsInFlight> inFlight = std::make_shared<McpCallsInFlight>();
    const std::shared_ptr<McpKeptConnections> connections = std::make_shared<McpKeptConnections>(services);
    const std::shared_ptr<McpServiceNotes> notes = std::make_shared<McpServiceNotes>(connections);
    const std::shared_ptr<McpServiceSessions> sessions = std::make_shared<McpServiceSessions>(workers, notes);
    std::int64_t maxAnswerBytes = kDefaultAnswerBytes;
    const std::shared_ptr<McpModernServices> modern = std::make_shared<McpModernServices>(services, workers);
    bool usesProgress = false;                       // see McpDispatcher::setProgress
    bool isExact = false;                            // how messages are read
    std::shared_ptr<McpObserver> observer = nullptr; // null without one
};

/// The call of one tool that a service answers: what is sent, in which session, and what becomes of the answer.
///
/// Thread: one, on a pooled fiber; the call lives on that fiber's stack.
class McpServiceCall {
public:
    McpServiceCall(McpCallContext& context, McpMessage& message)
        : context_(context), message_(message), service_(*message.service) {}
    McpServiceCall(const McpServiceCall&) = delete;
    McpServiceCall& operator=(const McpServiceCall&) = delete;

    /// Parks until the service has answered. Once.
    McpReply run();

private:
    McpReply forward_();
    McpReply listTools_();
    using Building_ = std::shared_ptr<McpRpcRequest>;
    /// What is to be sent; null, with the reason, when it cannot be.
    Building_ read_(ZnString* refusal);
    bool write_(const Building_& building, ZnString* refusal);
    bool build_(const Building_& building, std::function<void()> step, ZnString* refusal);
    bool doWork_(bool isLarge, std::function<void()> work);
    bool findEra_(McpForwardResult* failure);
    McpForwardResult exchange_(McpForwardRequest&& request);
    void noteResult_(const McpForwardResult& result);
    bool isManaged_(const McpForwardRequest& request) const;
    McpForwardResult exchangeInSession_(McpForwardRequest&& request);
    McpForwardResult exchangeModern_(McpForwardRequest&& request);
    bool learnTools_(McpForwardResult* page);
    bool mirrorAgain_(McpForwardRequest* request);
    McpForwardResult post_(McpForwardRequest&& request);
    int leftMs_() const;
    void handOnProgress_();
    void cancelUpstream_(const McpForwardResult& result);

    std::shared_ptr<McpToolAnswer> toolAnswer_(McpForwardResult&& result) const;
    template <typename Answer>
    McpReply finish_(const std::shared_ptr<Answer>& answer);
    McpReply holdUntilSent_(McpReply reply);
    void tell_();
    McpReply refused_(const ZnString& toolResult);
    McpReply failed_(const char* text);

    McpCallContext& context_;
    McpMessage& message_;
    const McpBridgeServiceRecord& service_;
    std::optional<McpForwardCall> call_; // the last one; it has ended unless this fiber is in it
    std::optional<McpCallsInFlight::Entry> entry_;
    bool isModern_ = false;         // the service is spoken to in revision 2026-07-28 of the protocol
    const char* refusal_ = nullptr; // there was no room for the call or its answer
    bool isLarge_ = false;          // the client's message
    bool wasLarge_ = false;         // an answer, also one that was not taken
    struct Posted_ {
        std::optional<ZnJsonValue> id; // nothing when the request is not to be cancelled
        ZnString sessionId;
        ZnString protocolVersion;
    };
    Posted_ posted_;           // the last request
    McpCallRecord record_;     // filled in where there is an observer
    long long deadlineNs_ = 0; // of several exchanges together; 0: there is one, with a limit of its own
};
