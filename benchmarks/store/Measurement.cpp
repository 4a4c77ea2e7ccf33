#include "Measurement.h"

#include <algorithm>
#include <bit>

void Latencies::add(const Latencies& other) {
    for (std::size_t bucket = 0; bucket < counts_.size(); ++bucket)
        counts_[bucket] += other.counts_[bucket];
    count_ += other.count_;
    maxNs_ = std::max(maxNs_, other.maxNs_);
}

double Latencies::percentileUs(double share) const {
    const double wanted = share * static_cast<double>(count_);
    std::uint64_t seen = 0;
    for (std::size_t bucket = 0; bucket < counts_.size(); ++bucket) {
        seen += counts_[bucket];
        if (counts_[bucket] != 0 && static_cast<double>(seen) >= wanted)
            return std::min(middleNs_(bucket) / 1000.0, maxUs());
    }
    return 0.0;
}

// Below 2^kStepBits a bucket is one nanosecond; above, each power of two has as many buckets.
std::size_t Latencies::bucketOf_(std::uint64_t ns) {
    const unsigned width = static_cast<unsigned>(std::bit_width(ns));
    if (width <= kStepBits)
        return ns;
    const unsigned shift = width - kStepBits - 1;
    const std::uint64_t step = (ns >> shift) & ((1u << kStepBits) - 1);
    return ((static_cast<std::size_t>(shift) + 1) << kStepBits) + step;
}

double Latencies::middleNs_(std::size_t bucket) {
    const std::size_t octave = bucket >> kStepBits;
    const std::uint64_t step = bucket & ((1u << kStepBits) - 1);
    if (octave == 0)
        return static_cast<double>(step);
    const double width = static_cast<double>(std::uint64_t{1} << (octave - 1));
    return (static_cast<double>((1u << kStepBits) + step) + 0.5) * width;
}

Measurement amount(std::string_view name, Measurement::Unit unit, double value) {
    Measurement result;
    name.copy(result.name, sizeof(result.name) - 1);
    result.unit = unit;
    result.value = value;
    return result;
}

Measurement rate(std::string_view name, std::uint64_t operationCount, std::uint64_t byteCount, double seconds,
                 const Latencies* latencies) {
    Measurement result = amount(name, Measurement::Unit::OpsPerSecond, static_cast<double>(operationCount) / seconds);
    result.megabytesPerSecond = static_cast<double>(byteCount) / 1e6 / seconds;
    if (latencies != nullptr) {
        result.p50Us = latencies->percentileUs(0.50);
        result.p99Us = latencies->percentileUs(0.99);
        result.maxUs = latencies->maxUs();
    }
    return result;
}

Measurement medianOf(std::vector<Measurement> samples) {
    std::sort(samples.begin(), samples.end(),
              [](const Measurement& left, const Measurement& right) { return left.value < right.value; });
    return samples[samples.size() / 2];
}
