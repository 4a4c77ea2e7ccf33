#pragma once

#include "agent/McpForwardCall.h"
#include "core/types/ZnMap.h"

#include <cstddef>
#include <list>
#include <memory>
#include <string_view>
#include <utility>

/// The upstream calls in flight and what they hold, bounded: neither many calls nor large ones take what others need,
/// and one service that hangs leaves room for those beside it.
///
/// Thread: that of the agent.
/// Owner: shared by the agent and every call in flight, which may outlive the agent.
class McpCallsInFlight {
public:
    static constexpr std::size_t kMaxCalls = 400;
    static constexpr std::size_t kMaxBytes = std::size_t(256) << 20; // of requests and answers, over all calls

    /// Holds the entry of one call for a scope.
    class Entry {
    public:
        /// `key`: by which cancel() finds the call; empty: it is not to be found.
        Entry(McpCallsInFlight& calls, McpForwardCall& call, const ZnString& serviceId, ZnString key)
            : calls_(calls),
              call_(call),
              serviceId_(serviceId),
              key_(std::move(key)),
              at_(calls.inFlight_.insert(calls.inFlight_.end(), this)) {
            ++calls_.byService_[serviceId_];
        }
        ~Entry() {
            calls_.inFlight_.erase(at_);
            calls_.bytes_ -= bytes_;
            if (--calls_.byService_[serviceId_] == 0)
                calls_.byService_.remove(serviceId_);
        }
        Entry(const Entry&) = delete;
        Entry& operator=(const Entry&) = delete;
        /// The call holds so many bytes now. False, when that is more than there is room for.
        bool hold(std::size_t byteCount) {
            calls_.bytes_ += byteCount - bytes_;
            bytes_ = byteCount;
            return calls_.bytes_ <= kMaxBytes;
        }

    private:
        friend class McpCallsInFlight;
        McpCallsInFlight& calls_;
        McpForwardCall& call_;
        const ZnString serviceId_;
        const ZnString key_;
        const std::list<Entry*>::iterator at_;
        std::size_t bytes_ = 0;
    };

    /// Why a call that holds so many bytes may not begin; null when it may. A service has half of the places while
    /// there are others.
    const char* refusal(const ZnString& serviceId, std::size_t byteCount, bool hasOtherServices) const {
        if (isStopping_)
            return kStopping;
        if (inFlight_.size() >= kMaxCalls)
            return "Too many bridge calls in flight";
        if (hasOtherServices && byService_.value(serviceId) >= kMaxCalls / 2)
            return kTooManyToService;
        return bytes_ + byteCount > kMaxBytes ? kTooManyBytes : nullptr;
    }
    /// Counts the bytes of an answer until what is returned is destroyed. Null when the answers that wait for slow
    /// clients leave no room for it; alone it may have any size.
    static std::shared_ptr<const void> holdUnsent(const std::shared_ptr<McpCallsInFlight>& calls,
                                                  std::size_t byteCount);

    static constexpr const char* kTooManyToService = "Too many calls in flight to this service";
    static constexpr const char* kTooManyBytes = "Too many bridge bytes in flight";
    static constexpr const char* kStopping = "Agent is stopping";

    /// One line in the log about a call that has failed and was not ended on purpose; at most kReportsPerSecond, the
    /// others with their number later.
    void report(const ZnString& serviceId, const McpForwardResult& result);
    static constexpr int kReportsPerSecond = 10;

    bool isEmpty() const noexcept { return inFlight_.empty(); }
    std::size_t size() const noexcept { return inFlight_.size(); }
    /// Ends every call in flight; from now on no call is to begin.
    void stop() {
        isStopping_ = true;
        for (Entry* entry : inFlight_)
            entry->call_.end(McpForwardCall::kStopped); // the list stays: the fibers resume from the loop
    }
    /// Ends the calls with that key.
    void cancel(const ZnString& key) {
        for (Entry* entry : inFlight_) {
            if (entry->key_ == key)
                entry->call_.end(McpForwardCall::kCancelled);
        }
    }

private:
    std::list<Entry*> inFlight_;
    ZnMap<ZnString, std::size_t> byService_; // calls in flight, of services that have any
    std::size_t bytes_ = 0;
    std::size_t unsentBytes_ = 0; // of answers that are built
    bool isStopping_ = false;
    long long reportSecond_ = 0; // of the monotonic clock
    int reportCount_ = 0;        // in that second
    unsigned long long unreportedCount_ = 0;
};

namespace mcp {

/// Under which a session's call is found; sessions choose the ids of their requests for themselves.
inline ZnString callKey(std::string_view sessionId, const ZnString& idText) {
    return ZnString(sessionId) + "\n" + idText;
}

} // namespace mcp
