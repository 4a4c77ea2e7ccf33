#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string_view>
#include <vector>

/// How long single operations took, in buckets of 1/16 of their size.
///
/// Thread: one at a time.
class Latencies {
public:
    void add(std::uint64_t ns) {
        ++counts_[bucketOf_(ns)];
        ++count_;
        maxNs_ = ns > maxNs_ ? ns : maxNs_;
    }
    void add(const Latencies& other);
    /// `share` from 0 to 1. Microseconds; 0 when there is none.
    double percentileUs(double share) const;
    double maxUs() const { return static_cast<double>(maxNs_) / 1000.0; }

private:
    static constexpr unsigned kStepBits = 4;
    static std::size_t bucketOf_(std::uint64_t ns);
    static double middleNs_(std::size_t bucket);

    std::array<std::uint64_t, (64 - kStepBits + 1) << kStepBits> counts_ = {};
    std::uint64_t count_ = 0;
    std::uint64_t maxNs_ = 0;
};

/// Gives the time since the last question. Thread: one.
class Stopwatch {
public:
    std::uint64_t lapNs() {
        const auto now = std::chrono::steady_clock::now();
        const auto elapsed = now - last_;
        last_ = now;
        return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count());
    }
    double lapSeconds() { return static_cast<double>(lapNs()) / 1e9; }

private:
    std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

/// One figure of one store. Trivially copyable: it comes through a pipe as it is. Thread: a value.
struct Measurement {
    enum class Unit : std::uint32_t { OpsPerSecond, Milliseconds, Mebibytes, Times };

    char name[48] = {}; // NUL-terminated
    Unit unit = Unit::OpsPerSecond;
    double value = 0.0;
    double megabytesPerSecond = 0.0; // 0: does not apply, as for the latencies
    double p50Us = 0.0;
    double p99Us = 0.0;
    double maxUs = 0.0;

    std::string_view label() const { return name; }
    bool greaterIsBetter() const { return unit == Unit::OpsPerSecond; }
};

Measurement rate(std::string_view name, std::uint64_t operationCount, std::uint64_t byteCount, double seconds,
                 const Latencies* latencies = nullptr);
Measurement amount(std::string_view name, Measurement::Unit unit, double value);
/// The one whose value is in the middle. `samples` is not empty.
Measurement medianOf(std::vector<Measurement> samples);
