#include "agent/McpModernServices.h"

#include "agent/McpModernRequest.h"
#include "agent/McpRpcRequest.h"
#include "agent/McpWaiters.h"
#include "core/platform/ZnMonotonicClock.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace {

constexpr long long kNsPerMs = 1000000;
constexpr int kTooManyRequests = 429; // of HTTP
constexpr long long kVersionNotServed = -32022;

/// Again: the service says that it speaks the revision, but has not answered in it. None: nothing is known.
enum class Verdict { Modern, Legacy, Again, None };

/// What follows from the versions that a service names, `whenModern` when the agent's is one of them.
Verdict verdictOf(const ZnJsonValue& versions, Verdict whenModern) {
    const ZnJsonArray* list = versions.array();
    if (list == nullptr || list->isEmpty())
        return Verdict::Legacy;
    bool isLegacy = false;
    for (const ZnJsonValue& version : *list) {
        if (version.string() == mcp::kModernVersion)
            return whenModern;
        isLegacy = isLegacy || version.string() < std::string_view(mcp::kModernVersion); // they are dates
    }
    return isLegacy ? Verdict::Legacy : Verdict::None;
}

Verdict verdictOfError(const ZnJsonObject& error) {
    if (error.value("code").toLongLong() != kVersionNotServed)
        return Verdict::Legacy;
    const ZnJsonObject* data = error.value("data").object();
    return data == nullptr ? Verdict::Legacy : verdictOf(data->value("supported"), Verdict::Again);
}

bool isRefusalOfHttp(int status) {
    constexpr int kStatuses[] = {400, 404, 405, 406, 415, kTooManyRequests}; // of those who know no such request
    return std::find(std::begin(kStatuses), std::end(kStatuses), status) != std::end(kStatuses);
}

/// Whether the status alone says that the request has not come through to the one who is asked.
bool saysNothing(const McpForwardResult& result) {
    const int status = result.statusCode;
    return !result.transportOk || result.lacksAnswer || status < 200 || (status > 200 && status < 400) ||
           status == 401 || status == 403 || status >= 500;
}

Verdict verdictOf(int status, const ZnJsonValue& answer, const ZnJsonValue& id) {
    const ZnJsonObject* message = answer.object();
    const ZnJsonObject* error = message == nullptr ? nullptr : message->value("error").object();
    const bool isError = error != nullptr && error->value("code").type() == JsonType::Integer;
    if (status != 200) // who refuses a request need not have read its id
        return isError ? verdictOfError(*error) : isRefusalOfHttp(status) ? Verdict::Legacy : Verdict::None;
    if (message == nullptr || !(message->value("id") == id))
        return Verdict::None;
    if (isError)
        return verdictOfError(*error);
    if (!message->contains("result"))
        return Verdict::None;
    const ZnJsonObject* result = message->value("result").object();
    return result == nullptr ? Verdict::Legacy : verdictOf(result->value("supportedVersions"), Verdict::Modern);
}

} // namespace

struct McpModernServices::Entry_ {
    ServiceRef service;
    std::optional<bool> isModern;
    std::shared_ptr<const McpForwardResult> why; // it could not be found out
    bool isAsking = false;
    McpWaiters waiters;
    McpToolHeaders::ByTool headers;
};

std::optional<bool> McpModernServices::speaks(const McpMessage& message, int maxWaitMs, const Exchange& exchange,
                                              McpForwardResult* failure) {
    const long long deadlineNs = monotonicNowNs() + maxWaitMs * kNsPerMs;
    for (;;) {
        const EntryRef_ entry = entryFor_(message.service);
        if (entry->isModern)
            return entry->isModern;
        if (!entry->isAsking) {
            ask_(entry, exchange, failure);
            return entry->isModern;
        }
        if (entry->waiters.size() >= kMaxWaiting) {
            *failure = McpForwardResult::failure(McpForwardCall::kTooManyBytes);
            return std::nullopt;
        }
        const long long leftMs = (deadlineNs - monotonicNowNs()) / kNsPerMs;
        if (!entry->waiters.wait(*message.caller, static_cast<int>(leftMs))) {
            *failure = McpForwardResult::failure(McpForwardCall::kTimedOut);
            return std::nullopt;
        }
        if (entry->why)
            *failure = *entry->why;
        if (entry->isModern || entry->why)
            return entry->isModern;
    }
}

/// An entry that was made for another form of the service does not count.
McpModernServices::EntryRef_ McpModernServices::entryFor_(const ServiceRef& service) {
    const unsigned serial = services_->serial();
    if (std::exchange(listSerial_, serial) != serial)
        byId_.clear();
    EntryRef_& entry = byId_[service->id];
    if (!entry || entry->service != service) {
        entry = std::make_shared<Entry_>();
        entry->service = service;
    }
    return entry;
}

void McpModernServices::ask_(const EntryRef_& entry, const Exchange& exchange, McpForwardResult* failure) {
    entry->isAsking = true;
    Verdict verdict = Verdict::Again;
    for (int round = 0; round < 2 && verdict == Verdict::Again; ++round) {
        McpForwardRequest request = mcp::newRequest("server/discover", {}, {.isModern = true});
        const ZnJsonValue id = *request.id;
        *failure = exchange(std::move(request));
        verdict = Verdict::None;
        if (saysNothing(*failure))
            continue;
        ZnJsonValue answer = mcp::readAnswer(failure, *workers_);
        verdict = verdictOf(failure->statusCode, answer, id);
        failure->isDecoded = true; // its text has been given up
        failure->body = std::move(answer);
    }
    if (verdict == Verdict::Modern || verdict == Verdict::Legacy)
        entry->isModern = verdict == Verdict::Modern;
    else if (failure->isSuccess())
        failure->message = "the service does not say which version of the protocol it speaks";
    failure->lacksAnswer = failure->transportOk;
    // Those who wait share the answer of the service, but not what became of this call alone.
    const int code = failure->errorCode;
    const bool isOwn = code == McpForwardCall::kClientGone || code == McpForwardCall::kCancelled ||
                       code == McpForwardCall::kTooManyBytes;
    if (!entry->isModern && !isOwn)
        entry->why = std::make_shared<McpForwardResult>(*failure);
    const bool isLasting = entry->isModern && failure->statusCode != kTooManyRequests;
    const auto kept = byId_.find(entry->service->id);
    if (!isLasting && kept != byId_.end() && kept->second == entry)
        byId_.erase(kept);
    entry->isAsking = false;
    entry->waiters.wake();
}

void McpModernServices::learn(const ServiceRef& service, const McpToolHeaders::ByTool& headers) {
    McpToolHeaders::ByTool& known = entryFor_(service)->headers;
    for (const auto& [tool, ref] : headers) {
        known.remove(tool);
        if (!ref)
            continue;
        if (known.size() >= McpToolHeaders::kMaxTools)
            known.clear(); // what is still in use is learnt again
        known.insert(tool, ref);
    }
}

McpToolHeaders::Ref McpModernServices::headersOf(const ServiceRef& service, const ZnString& tool) {
    return entryFor_(service)->headers.value(tool);
}
