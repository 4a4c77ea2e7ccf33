#include "agent/McpServiceNotes.h"

#include "agent/McpServiceHeaders.h"
#include "core/io/ZnHttpClient.h"
#include "core/runtime/ZnTimer.h"
#include "core/types/ZnJsonObject.h"

#include <utility>

/// Deletes itself.
class McpServiceNotes::Note_ final : public ZnObject {
public:
    Note_(std::shared_ptr<McpServiceNotes> notes, std::shared_ptr<const McpBridgeServiceRecord> service)
        : notes_(std::move(notes)), service_(std::move(service)) {
        constexpr std::int64_t kMaxAnswerBytes = 65536;
        ++notes_->count_;
        mcp::setServiceHeaders(client_, *service_);
        notes_->connections_->apply(client_, *service_);
        client_.setHeader("Accept", "application/json, text/event-stream");
        client_.setMaxResponseBytes(kMaxAnswerBytes);
        client_.connect(&ZnHttpClient::finished, this, [this] { deleteLater(); });
        client_.connect(&ZnHttpClient::errorOccurred, this, [this](int) { deleteLater(); });
        timer_.connect(&ZnTimer::timeout, this, [this] { deleteLater(); });
        timer_.setSingleShot(true);
        timer_.start(kLimitMs);
    }
    ~Note_() override { --notes_->count_; }
    void send(int method, McpForwardRequest request) {
        if (!request.sessionId.isEmpty())
            client_.setHeader("Mcp-Session-Id", request.sessionId);
        if (!request.protocolVersion.isEmpty())
            client_.setHeader("Mcp-Protocol-Version", request.protocolVersion);
        const ZnString type = request.body.isEmpty() ? ZnString() : ZnString("application/json");
        client_.request(method, service_->endpoint, std::move(request.body), type);
    }

private:
    const std::shared_ptr<McpServiceNotes> notes_;
    const std::shared_ptr<const McpBridgeServiceRecord> service_;
    ZnHttpClient client_;
    ZnTimer timer_;
};

void McpServiceNotes::send(std::shared_ptr<const McpBridgeServiceRecord> service, int method,
                           McpForwardRequest request) {
    if (count_ < kMaxAtATime)
        (new Note_(shared_from_this(), std::move(service)))->send(method, std::move(request));
}

void McpServiceNotes::cancel(std::shared_ptr<const McpBridgeServiceRecord> service, const ZnJsonValue& requestId,
                             const ZnString& sessionId, const ZnString& protocolVersion) {
    const ZnJsonObject params{{"requestId", requestId}, {"reason", "nobody waits for the answer any more"}};
    const ZnJsonObject note{{"jsonrpc", "2.0"}, {"method", "notifications/cancelled"}, {"params", params}};
    McpForwardRequest request;
    request.body = ZnByteArray(ZnJsonValue(note).toJson());
    request.sessionId = sessionId;
    request.protocolVersion = protocolVersion;
    send(std::move(service), ZnHttpClient::Post, std::move(request));
}
