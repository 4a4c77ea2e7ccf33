#include "agent/McpServiceCall.h"

#include "agent/McpHeaders.h"
#include "agent/McpJson.h"
#include "agent/McpModernRequest.h"
#include "agent/McpRpcAnswer.h"
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
    ZnString refusal;
    const Building_ building = read_(&refusal);
    if (!building)
        return refused_(refusal);
    McpForwardResult result;
    const bool hasEra = findEra_(&result);
    if (hasEra && !write_(building, &refusal))
        return refused_(refusal);
    McpForwardRequest request = building->take();
    record_.method = std::move(request.method);
    record_.tool = std::move(request.tool);
    const bool listsTools = request.listsTools;
    if (hasEra)
        result = exchange_(std::move(request));
    if (result.errorCode == McpForwardCall::kCancelled)
        return McpReply::ofStatus(202);
    if (refusal_ != nullptr)
        return failed_(refusal_);
    if (!isRpc)
        return finish_(toolAnswer_(std::move(result)));
    const auto answer = std::make_shared<McpRpcAnswer>(message_.idText, std::move(result), service_,
                                                       static_cast<std::size_t>(context_.maxAnswerBytes));
    answer->setTellsOutcome(context_.observer != nullptr);
    if (listsTools && service_.rules.hasToolRules())
        answer->filterTools(message_.service);
    if (listsTools && isModern_)
        answer->learnTools();
    return finish_(answer);
}

McpServiceCall::Building_ McpServiceCall::read_(ZnString* refusal) {
    const bool isRpc = message_.tool == McpToolCatalogue::Tool::Rpc;
    const bool wantsExact = service_.interop || !isRpc;
    isLarge_ = message_.isLarge();
    auto building = std::make_shared<McpRpcRequest>(
        isRpc ? McpRpcRequest::Form::AsGiven : McpRpcRequest::Form::ToolCall, message_.service,
        std::move(message_.document), std::move(message_.body),
        wantsExact ? JsonReading::Exact : JsonReading::QuietDialect, wantsExact != context_.isExact);
    building->setTellsNames(context_.observer != nullptr);
    building->setWantsProgress(message_.progressToken && message_.caller->takesMessages());
    const bool isWhole = service_.era == McpBridgeServiceRecord::Era::Legacy; // else the era decides what is written
    const auto read = [building, isWhole] {
        building->read();
        if (isWhole || building->refusal() != nullptr)
            building->write();
    };
    if (!build_(building, read, refusal))
        return nullptr;
    if (!mcp::isHeaderValue(service_.bearerToken.view())) {
        *refusal = mcp::toolError_("The bearer token of this service is not a valid header value", 500);
        return nullptr;
    }
    return building;
}

bool McpServiceCall::write_(const Building_& building, ZnString* refusal) {
    if (service_.era == McpBridgeServiceRecord::Era::Legacy)
        return true;
    if (isModern_)
        building->setModern(context_.modern->headersOf(message_.service, building->toolName()));
    return build_(
        building, [building] { building->write(); }, refusal);
}

/// One step of it, away from the loop when it is large.
bool McpServiceCall::build_(const Building_& building, std::function<void()> step, ZnString* refusal) {
    const bool hasRun = doWork_(isLarge_, std::move(step));
    if (!hasRun)
        *refusal = mcp::toolError_(McpCallsInFlight::kStopping, 503);
    else if (const char* unusable = building->refusal())
        *refusal = mcp::toolError_(unusable, building->refusalStatus());
    return refusal->isEmpty();
}

bool McpServiceCall::doWork_(bool isLarge, std::function<void()> work) {
    if (isLarge)
        return context_.workers->await(std::move(work));
    work();
    return true;
}

/// Whether it is known in which version of the protocol the service is to be spoken to; parks while it is asked.
bool McpServiceCall::findEra_(McpForwardResult* failure) {
    using Era = McpBridgeServiceRecord::Era;
    isModern_ = service_.era == Era::Modern;
    if (service_.era == Era::Legacy)
        return true;
    deadlineNs_ = monotonicNowNs() + service_.limitMs() * kNsPerMs;
    if (isModern_)
        return true;
    const auto post = [this](McpForwardRequest other) { return post_(std::move(other)); };
    const std::optional<bool> isModern = context_.modern->speaks(message_, leftMs_(), post, failure);
    isModern_ = isModern.value_or(false);
    if (!isModern)
        noteResult_(*failure);
    if (failure->errorCode == McpForwardCall::kTooManyBytes && refusal_ == nullptr)
        refusal_ = McpCallsInFlight::kTooManyToService;
    return isModern.has_value();
}

// --- the tools of a service

McpReply McpServiceCall::listTools_() {
    if (!service_.rules.allowsMethod("tools/list"))
        return refused_(mcp::toolError_(McpServiceRules::kRefusal, 403));
    record_.method = "tools/list";
    McpForwardResult result;
    const bool hasEra = findEra_(&result);
    McpToolList list(static_cast<std::size_t>(context_.maxAnswerBytes), isModern_);
    do {
        if (hasEra)
            result = exchange_(list.nextRequest());
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
        return finish_(toolAnswer_(std::move(result)));
    } while (!list.isWhole());
    return finish_(std::make_shared<McpToolListAnswer>(message_.idText, std::move(list), message_.service));
}

// --- exchanges with the service

McpForwardResult McpServiceCall::exchange_(McpForwardRequest&& request) {
    const bool isManaged = isManaged_(request);
    if (isManaged && deadlineNs_ == 0)
        deadlineNs_ = monotonicNowNs() + service_.limitMs() * kNsPerMs;
    McpForwardResult result = isManaged   ? exchangeInSession_(std::move(request))
                              : isModern_ ? exchangeModern_(std::move(request))
                                          : post_(std::move(request));
    noteResult_(result);
    return result;
}

void McpServiceCall::noteResult_(const McpForwardResult& result) {
    record_.status = result.statusCode;
    record_.transportCode = result.errorCode;
}

/// Tools are called in a session of the agent's in any case; other requests where the service is to have one.
bool McpServiceCall::isManaged_(const McpForwardRequest& request) const {
    if (isModern_)
        return false;
    if (message_.tool != McpToolCatalogue::Tool::Rpc)
        return true;
    return service_.keepsSessions && request.sessionId.isEmpty() && !request.opensSession;
}

McpForwardResult McpServiceCall::exchangeInSession_(McpForwardRequest&& request) {
    const auto post = [this](McpForwardRequest other) { return post_(std::move(other)); };
    McpForwardResult result;
    for (bool mayRepeat = true;; mayRepeat = false) {
        const McpServiceSessions::SessionRef session = context_.sessions->open(message_, leftMs_(), post, &result);
        if (!session) {
            if (result.errorCode == McpForwardCall::kTooManyBytes && refusal_ == nullptr)
                refusal_ = McpCallsInFlight::kTooManyToService;
            return result;
        }
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

/// A service that refuses a call for its headers has not acted on it. What its tools mirror may not be known yet, or no
/// longer be what it was: if a new list says something else, the call is sent once more.
McpForwardResult McpServiceCall::exchangeModern_(McpForwardRequest&& request) {
    if (!request.mirrorsTool)
        return post_(std::move(request));
    McpForwardRequest again = request;
    McpForwardResult result = post_(std::move(request));
    McpForwardResult page;
    if (!mcp::refusesHeaders(result))
        return result;
    if (!learnTools_(&page))
        return page.errorCode == McpForwardCall::kCancelled ? page : result;
    return mirrorAgain_(&again) ? post_(std::move(again)) : result;
}

bool McpServiceCall::learnTools_(McpForwardResult* page) {
    McpToolList list(static_cast<std::size_t>(context_.maxAnswerBytes), true);
    do {
        *page = post_(list.nextRequest());
        const std::size_t byteCount = page->rawBody.size();
        if (!page->isSuccess() || !list.take(mcp::readAnswer(page, *context_.workers), byteCount))
            return false;
    } while (!list.isWhole());
    const auto tools = std::make_shared<ZnJsonArray>(list.takeTools());
    const auto headers = std::make_shared<McpToolHeaders::ByTool>();
    const auto look = [tools, headers] { *headers = McpToolHeaders::of(std::exchange(*tools, {})); };
    if (!doWork_(list.byteCount() >= McpRpcAnswer::kLargeBytes, look))
        return false;
    context_.modern->learn(message_.service, *headers);
    return true;
}

/// False when the headers stay as they were, or cannot be sent.
bool McpServiceCall::mirrorAgain_(McpForwardRequest* request) {
    const auto call = std::make_shared<ZnJsonDocument>();
    const auto text = std::make_shared<const ZnByteArray>(request->body);
    const auto read = [call, text] { mcp::readObject(text->view(), JsonReading::Exact, call.get()); };
    if (!doWork_(text->size() >= McpMessage::kLargeBytes, read) || !call->root().isObject())
        return false;
    const ZnJsonObject* params = call->root().object()->value("params").object();
    const ZnJsonObject* values = params == nullptr ? nullptr : params->value("arguments").object();
    if (values == nullptr)
        return false;
    const McpToolHeaders::Ref known =
        context_.modern->headersOf(message_.service, ZnString(params->value("name").string()));
    std::optional<McpHeaderList> headers =
        known ? known->headersFor(*values, request->headers) : std::optional<McpHeaderList>(std::in_place);
    if (!headers || *headers == request->argumentHeaders)
        return false;
    request->argumentHeaders = std::move(*headers);
    return true;
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
    request.mayResume = !request.isModern && (context_.usesProgress || deadlineNs_ != 0);
    const bool tellsProgress = request.progressToken && message_.progressToken && message_.caller->takesMessages();
    const bool isNeverCancelled = request.opensSession || request.isModern; // the latter by the end of its connection
    posted_ = {isNeverCancelled ? std::nullopt : request.id, request.sessionId, request.protocolVersion};
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
    if constexpr (requires { answer->toolHeaders(); })
        if (isModern_)
            context_.modern->learn(message_.service, answer->toolHeaders());
    context_.inFlight->report(service_.id, answer->result());
    record_.answer = answer->outcome();
    return holdUntilSent_(McpReply::json(answer->takeText()));
}

std::shared_ptr<McpToolAnswer> McpServiceCall::toolAnswer_(McpForwardResult&& result) const {
    auto answer = std::make_shared<McpToolAnswer>(message_.idText, std::move(result));
    if (isModern_)
        answer->setModern();
    return answer;
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
