#include "core/storage/embeddeddb/RecordMerge_.h"

#include "core/types/ZnAssert.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace znEmbeddedDbDetail {

RecordMerge_::RecordMerge_(std::vector<MergeSource_> sources, KeyBounds_ bounds, bool isReverse)
    : bounds_(std::make_unique<const KeyBounds_>(std::move(bounds))),
      sources_(std::move(sources)),
      flip_(isReverse ? ~std::uint64_t(0) : 0) {
    ZN_ASSERT(sources_.size() <= std::numeric_limits<std::uint32_t>::max());
    findSkip_();
    heap_.reserve(sources_.size());
    for (std::size_t index = 0; index < sources_.size(); ++index) {
        MergeSource_& source = sources_[index];
        source.begin(*bounds_, isReverse);
        if (source.isBroken()) {
            fail_(source);
            return;
        }
        if (source.isValid())
            heap_.push_back({wordOf_(source.key()), static_cast<std::uint32_t>(index)});
    }
    for (std::size_t index = heap_.size() / 2; index-- > 0;)
        siftDown_(index);
    settleTop_();
}

/// All keys between two that begin with the same bytes begin with them too.
void RecordMerge_::findSkip_() {
    bool isFirst = true;
    std::string_view smallest;
    std::string_view largest;
    for (const MergeSource_& source : sources_) {
        if (source.isEmpty())
            continue;
        smallest = isFirst ? source.firstKey() : std::min(smallest, source.firstKey());
        largest = isFirst ? source.lastKey() : std::max(largest, source.lastKey());
        isFirst = false;
    }
    smallest = std::max<std::string_view>(smallest, bounds_->lower);
    if (bounds_->upper.has_value())
        largest = std::min<std::string_view>(largest, *bounds_->upper);
    skip_ = commonBytes(smallest, largest);
}

bool RecordMerge_::comesFirstOfEqual_(const Slot_& left, const Slot_& right) const noexcept {
    const int order = sources_[left.sourceIndex].key().compare(sources_[right.sourceIndex].key());
    if (order == 0)
        return left.sourceIndex < right.sourceIndex;
    return flip_ == 0 ? order < 0 : order > 0;
}

void RecordMerge_::advance() {
    MergeSource_& source = sources_[heap_[0].sourceIndex];
    source.advance();
    if (source.isValid()) [[likely]] {
        heap_[0].word = wordOf_(source.key());
    } else if (source.isBroken()) {
        fail_(source);
        return;
    } else {
        heap_[0] = heap_.back();
        heap_.pop_back();
    }
    siftDown_(0);
    settleTop_();
}

void RecordMerge_::advanceKey() {
    const std::uint64_t word = heap_[0].word;
    const std::string_view key = source().key(); // good beyond the step: of the mapping, or of the memtable
    do
        advance();
    while (isValid() && heap_[0].word == word && source().key() == key);
}

void RecordMerge_::siftDown_(std::size_t hole) noexcept {
    const std::size_t count = heap_.size();
    if (count == 0)
        return;
    const Slot_ moved = heap_[hole];
    for (std::size_t child = 2 * hole + 1; child < count; child = 2 * hole + 1) {
        if (child + 1 < count)
            child += comesFirst_(heap_[child + 1], heap_[child]) ? 1 : 0;
        if (!comesFirst_(heap_[child], moved))
            break;
        heap_[hole] = heap_[child];
        hole = child;
    }
    heap_[hole] = moved;
}

/// What a source is going to load has the key by which it came to the top.
void RecordMerge_::settleTop_() {
    if (heap_.empty())
        return;
    MergeSource_& source = sources_[heap_[0].sourceIndex];
    source.load();
    if (!source.isValid())
        fail_(source);
}

/// Ends the merge: what the source would have had to say about the keys to come is not known.
void RecordMerge_::fail_(const MergeSource_& source) {
    broken_ = &source;
    heap_.clear();
}

} // namespace znEmbeddedDbDetail
