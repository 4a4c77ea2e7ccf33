#include "agent/McpServiceCall.h"

#include "agent/McpHeaders.h"
#include "agent/McpJson.h"
#include "agent/McpRpcAnswer.h"
#include "agent/McpRpcRequest.h"
#include "agent/McpToolAnswer.h"
#include "agent/McpToolList.h"
#include "core/platform/ZnMonotonicClock.h"

#include <algorithm>
#include <utility>

namespace {

constexpr long long kNsPerMs = 1000000;
constexpr int kNotFound = 404; // of HTTP: the service does not know the session

} // namespace

McpReply McpServiceCall::run() {
    const bool isObserved = context_.observer != nullptr;
    if (isObserved)
        record_.beganNs = monotonicNowNs();
    McpReply reply = message_.tool == McpToolCatalogue::Tool::ListTools ? listTools_() : forward_();
    if (isObserved)
        tell_();
    if (wasLarge_)
        context_.workers->giveMemoryBackSoon();
    return reply;
}

void McpServiceCall::tell_() {
    record_.endedNs = monotonicNowNs();
    record_.session = message_.session;
    record_.service = service_.id;
    context_.observer->onCall(record_);
}

McpReply McpServiceCall::forward_() {
    const bool isRpc = message_.tool == McpToolCatalogue::Tool::Rpc;
    McpForwardRequest request;
    ZnString refusal;
    if (!build_(&request, &refusal))
        return refused_(refusal);
    record_.method = std::move(request.method);
    record_.tool = std::move(request.tool);
    const bool isFiltered = request.listsTools && service_.rules.hasToolRules();
    McpForwardResult result = exchange_(std::move(request));
    if (result.errorCode == McpForwardCall::kCancelled)
        return McpReply::ofStatus(202);
    if (refusal_ != nullptr)
        return failed_(refusal_);
    if (!isRpc)
        return finish_(std::make_shared<McpToolAnswer>(message_.idText, std::move(result)));
    const auto answer = std::make_shared<McpRpcAnswer>(message_.idText, std::move(result), service_,
                                                       static_cast<std::size_t>(context_.maxAnswerBytes));
    answer->setTellsOutcome(context_.observer != nullptr);
    if (isFiltered)
        answer->filterTools(message_.service);
    return finish_(answer);
}

bool McpServiceCall::build_(McpForwardRequest* request, ZnString* refusal) {
    const bool isRpc = message_.tool == McpToolCatalogue::Tool::Rpc;
    const bool wantsExact = service_.interop || !isRpc;
    const bool isLarge = message_.isLarge();
    const auto refuse = [refusal](const char* text, int status) {
        *refusal = mcp::toolError_(text, status);
        return false;
    };
    const auto building = std::make_shared<McpRpcRequest>(
        isRpc ? McpRpcRequest::Form::AsGiven : McpRpcRequest::Form::ToolCall, message_.service,
        std::move(message_.document), std::move(message_.body),
        wantsExact ? JsonReading::Exact : JsonReading::QuietDialect, wantsExact != context_.isExact);
    building->setTellsNames(context_.observer != nullptr);
    building->setWantsProgress(message_.progressToken && message_.caller->takesMessages());
    if (!isLarge)
        building->build();
    else if (!context_.workers->await([building] { building->build(); }))
        return refuse(McpCallsInFlight::kStopping, 503);
    if (const char* unusable = building->refusal())
        return refuse(unusable, building->refusalStatus());
    if (!mcp::isHeaderValue(service_.bearerToken.view()))
        return refuse("The bearer token of this service is not a valid header value", 500);
    *request = building->take();
    return true;
}

// --- the tools of a service

McpReply McpServiceCall::listTools_() {
    if (!service_.rules.allowsMethod("tools/list"))
        return refused_(mcp::toolError_(McpServiceRules::kRefusal, 403));
    record_.method = "tools/list";
    McpToolList list(static_cast<std::size_t>(context_.maxAnswerBytes));
    do {
        McpForwardResult result = exchange_(list.nextRequest());
        if (result.errorCode == McpForwardCall::kCancelled)
            return McpReply::ofStatus(202);
        if (refusal_ != nullptr)
            return failed_(refusal_);
        const std::size_t byteCount = result.rawBody.size();
        if (result.isSuccess() && list.take(mcp::readAnswer(&result, *context_.workers), byteCount))
            continue;
        if (result.isSuccess()) {
            result.lacksAnswer = true;
            result.message = list.problem();
        }
        return finish_(std::make_shared<McpToolAnswer>(message_.idText, std::move(result)));
    } while (!list.isWhole());
    return finish_(std::make_shared<McpToolListAnswer>(message_.idText, std::move(list), message_.service));
}

// --- exchanges with the service

McpForwardResult McpServiceCall::exchange_(McpForwardRequest&& request) {
    const bool isManaged = isManaged_(request);
    if (isManaged && deadlineNs_ == 0)
        deadlineNs_ = monotonicNowNs() + service_.limitMs() * kNsPerMs;
    McpForwardResult result = isManaged ? exchangeInSession_(std::move(request)) : post_(std::move(request));
    record_.status = result.statusCode;
    record_.transportCode = result.errorCode;
    return result;
}

/// Tools are called in a session of the agent's in any case; other requests where the service is to have one.
bool McpServiceCall::isManaged_(const McpForwardRequest& request) const {
    if (message_.tool != McpToolCatalogue::Tool::Rpc)
        return true;
    return service_.keepsSessions && request.sessionId.isEmpty() && !request.opensSession;
}

McpForwardResult McpServiceCall::exchangeInSession_(McpForwardRequest&& request) {
    const auto post = [this](McpForwardRequest other) { return post_(std::move(other)); };
    McpForwardResult result;
    for (bool mayRepeat = true;; mayRepeat = false) {
        const McpServiceSessions::SessionRef session = context_.sessions->open(message_, leftMs_(), post, &result);
        if (!session)
            return result;
        McpForwardRequest inSession = mayRepeat ? request : std::move(request); // it is sent again only after a 404
        inSession.sessionId = session->id;
        if (inSession.protocolVersion.isEmpty())
            inSession.protocolVersion = session->protocolVersion;
        result = post_(std::move(inSession));
        if (result.statusCode != kNotFound || session->id.isEmpty())
            return result;
        context_.sessions->forget(message_, session);
        if (!mayRepeat)
            return result;
    }
}

McpForwardResult McpServiceCall::post_(McpForwardRequest&& request) {
    entry_.reset();
    const std::size_t requestBytes = request.body.size();
    if (refusal_ == nullptr)
        refusal_ = context_.inFlight->refusal(service_.id, requestBytes, context_.services->size() > 1);
    if (refusal_ != nullptr)
        return McpForwardResult::failure(McpForwardCall::kTooManyBytes);
    if (deadlineNs_ != 0)
        request.timeoutMs = leftMs_();
    request.mayResume = context_.usesProgress || deadlineNs_ != 0;
    const bool tellsProgress = request.progressToken && message_.progressToken && message_.caller->takesMessages();
    posted_ = {request.opensSession ? std::nullopt : request.id, request.sessionId, request.protocolVersion};
    call_.emplace(service_, std::move(request), context_.maxAnswerBytes, *context_.workers);
    context_.connections->apply(*call_, service_);
    entry_.emplace(*context_.inFlight, *call_, service_.id,
                   message_.mayCancel || context_.usesProgress ? mcp::callKey(message_.sessionId, message_.idText)
                                                               : ZnString());
    entry_->hold(requestBytes);
    call_->setGrowth([this, requestBytes](std::size_t answerBytes) {
        wasLarge_ = wasLarge_ || answerBytes >= McpRpcAnswer::kLargeBytes;
        return entry_->hold(requestBytes + answerBytes);
    });
    if (tellsProgress)
        handOnProgress_();
    message_.caller->whenGone([this] { call_->end(McpForwardCall::kClientGone); });
    McpForwardResult result = call_->run();
    message_.caller->whenGone(nullptr);
    if (context_.usesProgress)
        cancelUpstream_(result);
    record_.bytesIn += call_->answerBytes();
    record_.bytesOut += requestBytes;
    if (result.errorCode == McpForwardCall::kTooManyBytes)
        refusal_ = McpCallsInFlight::kTooManyBytes;
    return result;
}

/// The client gets what the service says under the token that it gave itself.
void McpServiceCall::handOnProgress_() {
    call_->setProgress([this](const ZnJsonObject& params) {
        ZnJsonObject own = params;
        own["progressToken"] = *message_.progressToken;
        const ZnJsonObject note{{"jsonrpc", "2.0"}, {"method", "notifications/progress"}, {"params", std::move(own)}};
        message_.caller->tell(ZnByteArray(ZnJsonValue(note).toJson()));
    });
}

/// That a connection ends does not tell a service that nobody waits any more.
void McpServiceCall::cancelUpstream_(const McpForwardResult& result) {
    const bool isGivenUp = result.errorCode == McpForwardCall::kClientGone ||
                           result.errorCode == McpForwardCall::kCancelled ||
                           result.errorCode == McpForwardCall::kTimedOut;
    if (isGivenUp && posted_.id)
        context_.notes->cancel(message_.service, *posted_.id, posted_.sessionId, posted_.protocolVersion);
}

int McpServiceCall::leftMs_() const {
    return static_cast<int>(std::max<long long>((deadlineNs_ - monotonicNowNs()) / kNsPerMs, 1));
}

// --- the answer to the client

template <typename Answer>
McpReply McpServiceCall::finish_(const std::shared_ptr<Answer>& answer) {
    if (!answer->isLarge())
        answer->build();
    else if (!context_.workers->await([answer] { answer->build(); }))
        return failed_(McpCallsInFlight::kStopping);
    context_.inFlight->report(service_.id, answer->result());
    record_.answer = answer->outcome();
    return holdUntilSent_(McpReply::json(answer->takeText()));
}

McpReply McpServiceCall::holdUntilSent_(McpReply reply) {
    if (reply.text.size() < McpRpcAnswer::kLargeBytes)
        return reply;
    reply.keptUntilSent = McpCallsInFlight::holdUnsent(context_.inFlight, reply.text.size());
    return reply.keptUntilSent ? std::move(reply) : failed_(McpCallsInFlight::kTooManyBytes);
}

McpReply McpServiceCall::refused_(const ZnString& toolResult) {
    record_.isRefused = true;
    return McpReply::json(mcp::jsonRpcResultTo_(message_.idText.view(), toolResult.view()));
}

McpReply McpServiceCall::failed_(const char* text) {
    return refused_(mcp::toolError_(text, 503));
}
