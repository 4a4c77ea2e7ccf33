#pragma once

#include "core/storage/embeddeddb/KeyWord_.h"
#include "core/storage/embeddeddb/MergeSource_.h"

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace znEmbeddedDbDetail {

/// Goes through the records of several sources in the order of their keys; records with one key in the order of the
/// sources.
///
/// A heap of sources, each with eight bytes of its key beside it: those in which the keys of this merge begin to differ
/// from each other. So most comparisons are of one number, and need no look at a key.
/// Thread: one at a time. Owner: an iterator, or the check of a store; the view that the sources are of outlives it.
/// Invariant: the source on top is loaded.
class RecordMerge_ {
public:
    /// With `isReverse` from the greatest key down; the order of records with one key is the same.
    RecordMerge_(std::vector<MergeSource_> sources, KeyBounds_ bounds, bool isReverse);

    /// False past the last record, and when broken() tells of a source that could not be read.
    bool isValid() const noexcept { return !heap_.empty(); }
    const MergeSource_* broken() const noexcept { return broken_; }
    /// The rest only while isValid().
    const MergeSource_& source() const noexcept { return sources_[heap_[0].sourceIndex]; }
    std::size_t sourceIndex() const noexcept { return heap_[0].sourceIndex; }
    const RecordView_& record() const noexcept { return source().record(); }
    /// To the next record, of the same key or of another one.
    void advance();
    /// To the first record of the next key.
    void advanceKey();

private:
    struct Slot_ {
        std::uint64_t word; // of the source's key; greater for a key that comes later
        std::uint32_t sourceIndex;
    };

    void findSkip_();
    std::uint64_t wordOf_(std::string_view key) const noexcept { return keyWord(key, skip_) ^ flip_; }
    bool comesFirst_(const Slot_& left, const Slot_& right) const noexcept {
        return left.word != right.word ? left.word < right.word : comesFirstOfEqual_(left, right);
    }
    bool comesFirstOfEqual_(const Slot_& left, const Slot_& right) const noexcept;
    void siftDown_(std::size_t hole) noexcept;
    void settleTop_();
    void fail_(const MergeSource_& source);

    std::unique_ptr<const KeyBounds_> bounds_; // sources refer to it
    std::vector<MergeSource_> sources_;
    std::vector<Slot_> heap_; // of sources that have a record
    std::size_t skip_ = 0;    // so many bytes begin all keys within bounds
    std::uint64_t flip_;      // turns the order of words round
    const MergeSource_* broken_ = nullptr;
};

} // namespace znEmbeddedDbDetail
