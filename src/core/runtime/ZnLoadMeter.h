#pragma once

#include <array>

/// The share of the last second in which a loop was busy, from sums over slices of ten milliseconds.
///
/// Thread: the loop's own.
class ZnLoadMeter {
public:
    /// Adds one pass of the loop that ended at `nowNs`: how long it worked, and how long ago the previous one ended.
    void add(long long nowNs, long long busyNs, long long totalNs) noexcept {
        const long long slice = nowNs / kSliceNs_;
        Slice_& entry = slices_[static_cast<std::size_t>(slice) % slices_.size()];
        if (entry.number != slice)
            entry = {slice, 0, 0};
        entry.busyNs += busyNs;
        entry.totalNs += totalNs;
        latest_ = slice;
    }

    /// 0.0 to 1.0; 0.0 before the first pass.
    double load() const noexcept {
        long long busyNs = 0;
        long long totalNs = 0;
        for (const Slice_& entry : slices_) {
            if (latest_ - entry.number >= static_cast<long long>(slices_.size()))
                continue; // older than a second
            busyNs += entry.busyNs;
            totalNs += entry.totalNs;
        }
        return totalNs == 0 ? 0.0 : static_cast<double>(busyNs) / static_cast<double>(totalNs);
    }

private:
    static constexpr long long kSliceNs_ = 10000000;

    struct Slice_ {
        long long number = -1000;
        long long busyNs = 0;
        long long totalNs = 0;
    };

    std::array<Slice_, 100> slices_;
    long long latest_ = 0;
};
