#pragma once

#include "agent/McpObserver.h"
#include "core/types/ZnString.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <unordered_map>

/// Counts requests and calls, and tells them in the text format of Prometheus, version 0.0.4.
///
/// Thread: that of the loop. Owner: shared by the monitor and the agent's observers.
class McpMetrics final : public McpObserver {
public:
    static constexpr std::size_t kMaxServices = 1000; // calls of further ones count for a service "other"
    static constexpr const char* kContentType = "text/plain; version=0.0.4; charset=utf-8";

    /// What is read at the moment when it is asked for.
    struct Gauges {
        std::size_t callsInFlight = 0;
        std::size_t sessionCount = 0;
        double loopLoad = 0; // 0.0 to 1.0, over the last second
        std::uint64_t droppedLines = 0;
    };

    void onRequest(const McpRequestRecord& record) override;
    void onCall(const McpCallRecord& record) override;
    ZnString text(const Gauges& gauges) const;

private:
    static constexpr std::size_t kOutcomeCount = static_cast<std::size_t>(McpCallRecord::Outcome::Refused) + 1;
    static constexpr std::size_t kBoundCount = 13;
    struct Bound_ {
        long long ns;
        const char* seconds;
    };
    static const std::array<Bound_, kBoundCount> kBounds;

    struct Calls_ {
        std::array<std::uint64_t, kOutcomeCount> byOutcome{};
        std::array<std::uint64_t, kBoundCount + 1> byDuration{}; // of those that were not refused
        long long durationNs = 0;
    };
    using Services_ = std::unordered_map<ZnString, Calls_>;

    Calls_& callsOf_(const ZnString& service);
    static void appendOutcomes_(const ZnString& label, const Calls_& calls, ZnString* out);
    static void appendDurations_(const ZnString& label, const Calls_& calls, ZnString* out);

    Services_ services_;
    std::array<std::uint64_t, 600> requests_{}; // by status; 0: no answer went out
};
