#include "agent/McpMetrics.h"

#include "agent/McpText.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr const char* kOtherServices = "other";

void appendHead(const char* name, const char* type, const char* help, ZnString* out) {
    out->append("# HELP ").append(name).append(" ").append(help);
    out->append("\n# TYPE ").append(name).append(" ").append(type).append("\n");
}

void appendSample(const char* name, const ZnString& labels, const ZnString& value, ZnString* out) {
    out->append(name);
    if (!labels.isEmpty())
        out->append("{").append(labels.view()).append("}");
    out->append(" ").append(value.view()).append("\n");
}

ZnString countText(std::uint64_t count) {
    return ZnString(std::to_string(count));
}

void appendGauge(const char* name, const char* help, const ZnString& value, ZnString* out) {
    appendHead(name, "gauge", help, out);
    appendSample(name, ZnString(), value, out);
}

/// service="ID", with what would end the value or the line escaped.
ZnString serviceLabel(const ZnString& service) {
    const ZnString text = mcp::wellFormed(service);
    std::string label = "service=\"";
    for (const char c : text.view()) {
        if (c == '\n')
            label += "\\n";
        else if (c == '"' || c == '\\')
            label += {'\\', c};
        else
            label += c;
    }
    return ZnString(label + "\"");
}

ZnString secondsText(long long ns) {
    char text[40];
    std::snprintf(text, sizeof(text), "%lld.%09lld", ns / 1000000000, ns % 1000000000);
    return text;
}

} // namespace

const std::array<McpMetrics::Bound_, McpMetrics::kBoundCount> McpMetrics::kBounds = {{{5000000, "0.005"},
                                                                                      {10000000, "0.01"},
                                                                                      {25000000, "0.025"},
                                                                                      {50000000, "0.05"},
                                                                                      {100000000, "0.1"},
                                                                                      {250000000, "0.25"},
                                                                                      {500000000, "0.5"},
                                                                                      {1000000000, "1"},
                                                                                      {2500000000, "2.5"},
                                                                                      {5000000000, "5"},
                                                                                      {10000000000, "10"},
                                                                                      {30000000000, "30"},
                                                                                      {60000000000, "60"}}};

void McpMetrics::onRequest(const McpRequestRecord& record) {
    const auto status = static_cast<std::size_t>(std::max(record.status, 0));
    ++requests_[status < requests_.size() ? status : 0];
}

void McpMetrics::onCall(const McpCallRecord& record) {
    Calls_& calls = callsOf_(record.service);
    const McpCallRecord::Outcome outcome = record.outcome();
    ++calls.byOutcome[static_cast<std::size_t>(outcome)];
    if (outcome == McpCallRecord::Outcome::Refused)
        return;
    const long long durationNs = std::max(record.endedNs - record.beganNs, 0LL);
    const auto bound =
        std::find_if(kBounds.begin(), kBounds.end(), [&](const Bound_& b) { return durationNs <= b.ns; });
    ++calls.byDuration[static_cast<std::size_t>(bound - kBounds.begin())];
    calls.durationNs += durationNs;
}

McpMetrics::Calls_& McpMetrics::callsOf_(const ZnString& service) {
    const auto found = services_.find(service);
    if (found != services_.end())
        return found->second;
    return services_[services_.size() < kMaxServices ? service : ZnString(kOtherServices)];
}

void McpMetrics::appendOutcomes_(const ZnString& label, const Calls_& calls, ZnString* out) {
    for (std::size_t at = 0; at < kOutcomeCount; ++at) {
        const char* const outcome = McpCallRecord::nameOf(static_cast<McpCallRecord::Outcome>(at));
        appendSample("bridge_calls_total", label + ",outcome=\"" + outcome + "\"", countText(calls.byOutcome[at]), out);
    }
}

void McpMetrics::appendDurations_(const ZnString& label, const Calls_& calls, ZnString* out) {
    std::uint64_t count = 0;
    for (std::size_t at = 0; at <= kBoundCount; ++at) {
        count += calls.byDuration[at];
        const char* const bound = at < kBoundCount ? kBounds[at].seconds : "+Inf";
        appendSample("bridge_call_duration_seconds_bucket", label + ",le=\"" + bound + "\"", countText(count), out);
    }
    appendSample("bridge_call_duration_seconds_sum", label, secondsText(calls.durationNs), out);
    appendSample("bridge_call_duration_seconds_count", label, countText(count), out);
}

ZnString McpMetrics::text(const Gauges& gauges) const {
    constexpr std::size_t kBytesPerService = 2048;
    ZnString out;
    out.reserve((services_.size() + 1) * kBytesPerService);
    appendHead("bridge_requests_total", "counter", "Requests of clients by HTTP status; 0: the client left first",
               &out);
    for (std::size_t status = 0; status < requests_.size(); ++status)
        if (requests_[status] != 0)
            appendSample("bridge_requests_total", "status=\"" + countText(status) + "\"", countText(requests_[status]),
                         &out);
    std::vector<std::pair<ZnString, const Calls_*>> labels;
    for (const auto& [service, calls] : services_)
        labels.emplace_back(serviceLabel(service), &calls);
    std::sort(labels.begin(), labels.end());
    appendHead("bridge_calls_total", "counter", "Calls of services by what came of them", &out);
    for (const auto& [label, calls] : labels)
        appendOutcomes_(label, *calls, &out);
    appendHead("bridge_call_duration_seconds", "histogram", "Time until a call had its answer; without refused calls",
               &out);
    for (const auto& [label, calls] : labels)
        appendDurations_(label, *calls, &out);
    char load[20];
    std::snprintf(load, sizeof(load), "%.4f", gauges.loopLoad);
    appendGauge("bridge_calls_in_flight", "Calls that services have not answered yet", countText(gauges.callsInFlight),
                &out);
    appendGauge("bridge_sessions", "MCP sessions of clients", countText(gauges.sessionCount), &out);
    appendGauge("bridge_loop_load", "Share of the last second in which the loop was busy", load, &out);
    appendHead("bridge_access_log_dropped_total", "counter", "Lines for which the access log had no room", &out);
    appendSample("bridge_access_log_dropped_total", ZnString(), countText(gauges.droppedLines), &out);
    return out;
}
