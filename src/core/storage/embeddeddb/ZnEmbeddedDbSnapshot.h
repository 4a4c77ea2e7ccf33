#pragma once

#include <cstdint>
#include <memory>
#include <utility>

namespace znEmbeddedDbDetail {
struct ReadView_;
} // namespace znEmbeddedDbDetail

/// The content of a store at one moment.
///
/// Thread: any. Owner: a shared pointer. Costs memory and disk space for what has been replaced since, as
/// long as anybody holds it.
class ZnEmbeddedDbSnapshot {
public:
    ZnEmbeddedDbSnapshot(std::shared_ptr<const znEmbeddedDbDetail::ReadView_> view, std::uint64_t sequence)
        : view_(std::move(view)), sequence_(sequence) {}

    /// Of the last write that it shows.
    std::uint64_t sequence() const noexcept { return sequence_; }
    const std::shared_ptr<const znEmbeddedDbDetail::ReadView_>& view() const noexcept { return view_; }

private:
    const std::shared_ptr<const znEmbeddedDbDetail::ReadView_> view_;
    const std::uint64_t sequence_;
};
using ZnEmbeddedDbSnapshotPtr = std::shared_ptr<const ZnEmbeddedDbSnapshot>;
