#include "core/io/http/ZnHttpTimeoutTable_.h"

#include <algorithm>
#include <limits>
#include <utility>

using Phase = ZnHttpSessionPhase_;

namespace {

constexpr long long kNsPerMs = 1'000'000;
constexpr long long kNever = std::numeric_limits<long long>::max();
constexpr long long kWatchNs = 200 * kNsPerMs; // the grid of time-out checks
// How often, in a write time-out, one looks whether the peer takes anything: the time-out is exact to that part.
constexpr int kWriteLooks = 16;
constexpr long long kLongestSleepNs = 1'000'000 * kNsPerMs; // within what a timer can do

// How long a refused peer may still send before the connection is closed under it.
constexpr long long kDrainNs = 1000 * kNsPerMs;
constexpr long long kDrainQuietNs = 200 * kNsPerMs;

/// When a clock that began at `sinceNs` first shows more than `limitMs` whole milliseconds.
long long deadlineNs(long long sinceNs, int limitMs) noexcept {
    return limitMs < 1 ? kNever : sinceNs + (static_cast<long long>(limitMs) + 1) * kNsPerMs;
}

} // namespace

ZnHttpTimeoutTable_::ZnHttpTimeoutTable_(const ZnHttpTimeouts& timeouts, long long nowNs) noexcept
    : timeouts_(timeouts),
      createdNs_(nowNs),
      lastActivityNs_(nowNs),
      requestStartNs_(nowNs),
      handlerStartNs_(nowNs),
      lastWriteNs_(nowNs),
      writeLookNs_(nowNs),
      armedTickNs_(kNever) {}

void ZnHttpTimeoutTable_::noteTaken(unsigned long long takenBytes, long long nowNs) noexcept {
    writeLookNs_ = nowNs;
    if (std::exchange(takenBytes_, takenBytes) != takenBytes)
        lastWriteNs_ = nowNs;
}

ZnHttpTimeoutTable_::Verdict ZnHttpTimeoutTable_::verdict(Phase phase, long long nowNs) const noexcept {
    switch (phase) {
    case Phase::Closed: return Verdict::None;
    case Phase::Draining: return nowNs >= nextDeadlineNs_(phase) ? Verdict::Close : Verdict::None;
    case Phase::Responding:
        return nowNs >= deadlineNs(lastWriteNs_, timeouts_.writeTimeoutMs) ? Verdict::CloseSlowReader : Verdict::None;
    case Phase::Handling:
        if (nowNs >= handlerDeadlineNs_())
            return Verdict::AnswerLateHandler;
        return nowNs >= deadlineNs(peerLookNs_, timeouts_.peerLookMs) ? Verdict::LookAtPeer : Verdict::None;
    case Phase::Idle:
        if (nowNs < requestDeadlineNs_(phase))
            return nowNs >= deadlineNs(lastActivityNs_, timeouts_.keepAliveTimeoutMs) ? Verdict::Close : Verdict::None;
        // After a late answer a 408 would meet, unasked for, the next request of a peer that has had no time for it.
        return lastWriteNs_ >= requestDeadlineNs_(phase) ? Verdict::Close : Verdict::AnswerLateRequest;
    case Phase::Head:
    case Phase::Body: return nowNs >= requestDeadlineNs_(phase) ? Verdict::AnswerLateRequest : Verdict::None;
    }
    return Verdict::None;
}

long long ZnHttpTimeoutTable_::nextDeadlineNs_(Phase phase) const noexcept {
    switch (phase) {
    case Phase::Closed: return kNever;
    case Phase::Draining: return std::min(drainStartNs_ + kDrainNs, lastActivityNs_ + kDrainQuietNs);
    case Phase::Responding: return std::min(deadlineNs(lastWriteNs_, timeouts_.writeTimeoutMs), nextWriteLookNs_());
    case Phase::Handling: return std::min(handlerDeadlineNs_(), deadlineNs(peerLookNs_, timeouts_.peerLookMs));
    case Phase::Idle:
        return std::min(requestDeadlineNs_(phase), deadlineNs(lastActivityNs_, timeouts_.keepAliveTimeoutMs));
    case Phase::Head:
    case Phase::Body: break;
    }
    return requestDeadlineNs_(phase);
}

/// Between two requests the one for the headers counts, too: from the start of the last request.
long long ZnHttpTimeoutTable_::requestDeadlineNs_(Phase phase) const noexcept {
    return deadlineNs(requestStartNs_, phase == Phase::Body ? timeouts_.bodyTimeoutMs : timeouts_.headerTimeoutMs);
}

long long ZnHttpTimeoutTable_::handlerDeadlineNs_() const noexcept {
    return deadlineNs(handlerStartNs_, timeouts_.handlerTimeoutMs.value_or(timeouts_.bodyTimeoutMs));
}

long long ZnHttpTimeoutTable_::nextWriteLookNs_() const noexcept {
    return timeouts_.writeTimeoutMs < 1 ? kNever : writeLookNs_ + timeouts_.writeTimeoutMs * kNsPerMs / kWriteLooks;
}

long long ZnHttpTimeoutTable_::arm(Phase phase, long long nowNs) noexcept {
    const long long deadline = nextDeadlineNs_(phase);
    if (deadline >= armedTickNs_)
        return 0;
    const long long soonest = std::max(deadline, nowNs + 1);
    const long long tickCount = (soonest - createdNs_ + kWatchNs - 1) / kWatchNs;
    const long long tickNs = std::min(createdNs_ + tickCount * kWatchNs, nowNs + kLongestSleepNs);
    if (tickNs >= armedTickNs_)
        return 0;
    armedTickNs_ = tickNs;
    return tickNs - nowNs;
}

void ZnHttpTimeoutTable_::noteFired() noexcept {
    armedTickNs_ = kNever;
}
