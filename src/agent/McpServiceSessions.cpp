#include "agent/McpServiceSessions.h"

#include "agent/McpHeaders.h"
#include "agent/McpJson.h"
#include "agent/McpRpcRequest.h"
#include "agent/McpWaiters.h"
#include "core/io/ZnHttpClient.h"
#include "core/types/ZnVersion.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace {

constexpr std::string_view kUnderstood[] = {"2024-11-05", "2025-03-26", "2025-06-18", "2025-11-25"};

McpForwardRequest initializeRequest() {
    return mcp::newRequest(
        "initialize", {{"protocolVersion", McpServiceSessions::kProtocolVersion},
                       {"capabilities", ZnJsonObject()},
                       {"clientInfo", ZnJsonObject{{"name", "brelt-mcp-bridge-agent"}, {"version", zn::kVersion}}}});
}

McpForwardResult refusal(const char* text) {
    McpForwardResult result;
    result.transportOk = result.lacksAnswer = true;
    result.message = text;
    return result;
}

} // namespace

struct McpServiceSessions::Entry_ {
    ServiceRef service;
    SessionRef session;                          // null before the handshake has succeeded
    std::shared_ptr<const McpForwardResult> why; // it failed
    bool isOpening = false;
    bool isRemoved = false;
    McpWaiters waiters; // for the handshake
};

McpServiceSessions::SessionRef McpServiceSessions::open(const McpMessage& message, int maxWaitMs,
                                                        const Exchange& exchange, McpForwardResult* failure) {
    for (;;) {
        const EntryRef_ entry = entryFor_(message);
        if (!entry) {
            *failure = refusal("Too many sessions with services");
            return nullptr;
        }
        if (entry->session)
            return entry->session;
        if (!entry->isOpening) {
            if (!handshake_(*entry, exchange, failure))
                remove_(ZnString(message.sessionId), entry);
            return entry->session;
        }
        if (waitingCount_ >= kMaxWaiting) {
            *failure = McpForwardResult::failure(McpForwardCall::kTooManyBytes);
            return nullptr;
        }
        ++waitingCount_;
        const bool isWoken = entry->waiters.wait(*message.caller, maxWaitMs);
        --waitingCount_;
        if (!isWoken) {
            *failure = McpForwardResult::failure(McpForwardCall::kTimedOut);
            return nullptr;
        }
        if (entry->why) {
            *failure = *entry->why;
            return nullptr;
        }
    }
}

McpServiceSessions::EntryRef_ McpServiceSessions::find_(const McpMessage& message) const {
    const auto services = byClient_.find(message.sessionId);
    return services == byClient_.end() ? nullptr : services->second.value(message.service->id);
}

/// Null when there are too many. An entry that was made for another form of the service does not count.
McpServiceSessions::EntryRef_ McpServiceSessions::entryFor_(const McpMessage& message) {
    const ZnString clientId(message.sessionId);
    if (const EntryRef_ entry = find_(message)) {
        if (entry->service == message.service)
            return entry;
        remove_(clientId, entry);
    }
    if (count_ >= kMaxSessions)
        return nullptr;
    auto entry = std::make_shared<Entry_>();
    entry->service = message.service;
    byClient_[clientId].insert(message.service->id, entry);
    ++count_;
    return entry;
}

void McpServiceSessions::remove_(const ZnString& clientId, const EntryRef_& entry) {
    if (std::exchange(entry->isRemoved, true))
        return;
    --count_;
    Services_& services = byClient_[clientId];
    services.remove(entry->service->id);
    if (services.isEmpty())
        byClient_.remove(clientId);
    end_(*entry);
}

// --- the handshake

bool McpServiceSessions::handshake_(Entry_& entry, const Exchange& exchange, McpForwardResult* failure) {
    entry.isOpening = true;
    *failure = exchange(initializeRequest());
    SessionRef session = failure->isSuccess() ? agree_(failure) : nullptr;
    if (session) {
        McpForwardRequest note;
        note.body = ZnByteArray(R"({"jsonrpc": "2.0","method": "notifications/initialized"})");
        note.sessionId = session->id;
        note.protocolVersion = session->protocolVersion;
        note.isExact = true;
        *failure = exchange(std::move(note));
        if (!failure->isSuccess())
            session = nullptr;
    }
    entry.isOpening = false;
    entry.session = session;
    // Those who wait share the answer of the service, but not that this call's client has left.
    if (!session && failure->errorCode != McpForwardCall::kClientGone &&
        failure->errorCode != McpForwardCall::kCancelled)
        entry.why = std::make_shared<McpForwardResult>(*failure);
    entry.waiters.wake();
    if (session && entry.isRemoved)
        end_(entry); // the client has left meanwhile
    return session != nullptr;
}

/// Null, with `*answer` made a failure, when the answer is no agreement.
McpServiceSessions::SessionRef McpServiceSessions::agree_(McpForwardResult* answer) {
    const ZnJsonValue message = mcp::readAnswer(answer, *workers_);
    const ZnJsonObject* object = message.object();
    const ZnJsonObject* result = object == nullptr ? nullptr : object->value("result").object();
    auto session = std::make_shared<Session>();
    session->id = answer->mcpSessionId;
    if (result != nullptr)
        session->protocolVersion = mcp::textMember_(*result, "protocolVersion");
    const bool isUnderstood = std::find(std::begin(kUnderstood), std::end(kUnderstood),
                                        session->protocolVersion.view()) != std::end(kUnderstood);
    if (isUnderstood && mcp::isHeaderValue(session->id.view()))
        return session;
    answer->lacksAnswer = true;
    answer->message = result == nullptr ? "the service has refused the handshake"
                                        : "the service speaks no version of the protocol that the agent knows";
    return nullptr;
}

// --- the end

void McpServiceSessions::forget(const McpMessage& message, const SessionRef& session) {
    const EntryRef_ entry = find_(message);
    if (!entry || entry->session != session)
        return;               // another call has noticed it before
    entry->session = nullptr; // there is nothing left to end
    remove_(ZnString(message.sessionId), entry);
}

void McpServiceSessions::endClient(const ZnString& clientSessionId) {
    const auto found = byClient_.find(clientSessionId);
    if (found == byClient_.end())
        return;
    const Services_ services = std::move(found->second);
    byClient_.erase(found);
    for (const auto& [id, entry] : services) {
        entry->isRemoved = true;
        --count_;
        end_(*entry);
    }
}

void McpServiceSessions::endAll() {
    while (!byClient_.isEmpty())
        endClient(ZnString(byClient_.begin()->first));
}

void McpServiceSessions::end_(const Entry_& entry) const {
    if (!entry.session || entry.session->id.isEmpty())
        return;
    McpForwardRequest request;
    request.sessionId = entry.session->id;
    request.protocolVersion = entry.session->protocolVersion;
    notes_->send(entry.service, ZnHttpClient::Delete, std::move(request));
}
