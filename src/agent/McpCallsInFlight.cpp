#include "agent/McpCallsInFlight.h"

#include "agent/McpText.h"
#include "core/platform/ZnMonotonicClock.h"
#include "core/types/ZnLogger.h"

#include <utility>

std::shared_ptr<const void> McpCallsInFlight::holdUnsent(const std::shared_ptr<McpCallsInFlight>& calls,
                                                         std::size_t byteCount) {
    if (calls->unsentBytes_ > 0 && calls->unsentBytes_ + byteCount > kMaxBytes)
        return nullptr;
    calls->unsentBytes_ += byteCount;
    return {calls.get(), [calls, byteCount](const void*) { calls->unsentBytes_ -= byteCount; }};
}

void McpCallsInFlight::report(const ZnString& serviceId, const McpForwardResult& result) {
    constexpr const char* kCategory = "zn.agent.mcpcallsinflight";
    const bool isMeant = result.errorCode == McpForwardCall::kClientGone ||
                         result.errorCode == McpForwardCall::kStopped || result.errorCode == McpForwardCall::kCancelled;
    if (isMeant || result.message.isEmpty())
        return;
    const long long second = monotonicNowNs() / 1000000000;
    if (second != std::exchange(reportSecond_, second))
        reportCount_ = 0;
    if (reportCount_ >= kReportsPerSecond) {
        ++unreportedCount_;
        return;
    }
    ++reportCount_;
    const unsigned long long others = std::exchange(unreportedCount_, 0);
    ZN_LOG_WARNING(kCategory, "McpCallsInFlight::report")
        << "call to service \"" << mcp::printable(serviceId.view()) << "\" failed: " << result.errorCode << ", "
        << result.message << (others == 0 ? "" : " (and " + std::to_string(others) + " more that were not told of)");
}
