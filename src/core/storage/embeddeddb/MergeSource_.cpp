#include "core/storage/embeddeddb/MergeSource_.h"

#include <algorithm>

namespace znEmbeddedDbDetail {

namespace {

/// Entries of a hash map lie all over the memory. Fetched ahead in two steps, as their keys lie elsewhere again.
template <typename List>
void fetchAhead(const List& list, std::size_t position, bool isReverse) noexcept {
    constexpr std::size_t kNodeDistance = 12;
    constexpr std::size_t kKeyDistance = 6;
    const auto ahead = [&](std::size_t distance) { return isReverse ? position - distance : position + distance; };
    if (ahead(kNodeDistance) < list.size()) {
        const char* node = reinterpret_cast<const char*>(list[ahead(kNodeDistance)]);
        for (std::size_t at = 0; at < sizeof(*list[0]); at += 64)
            __builtin_prefetch(node + at);
    }
    if (ahead(kKeyDistance) < list.size())
        __builtin_prefetch(list[ahead(kKeyDistance)]->first.data());
}

} // namespace

void MergeSource_::begin(const KeyBounds_& bounds, bool isReverse) {
    isReverse_ = isReverse;
    isValid_ = false;
    if (isEmpty() || bounds.isEmpty() || lastKey() < bounds.lower ||
        (bounds.upper.has_value() && *bounds.upper <= firstKey()))
        return;
    if (table_ != nullptr)
        beginTable_(bounds);
    else
        beginList_(bounds);
}

void MergeSource_::beginTable_(const KeyBounds_& bounds) {
    const bool passesLower = firstKey() < bounds.lower;
    const bool passesUpper = bounds.upper.has_value() && *bounds.upper <= lastKey();
    checksBound_ = isReverse_ ? passesLower : passesUpper;
    if (checksBound_)
        bound_ = isReverse_ ? std::string_view(bounds.lower) : std::string_view(*bounds.upper);
    cursor_.emplace(table_);
    record_ = &cursor_->record();
    if (isReverse_ ? !passesUpper : !passesLower) {
        beginLazily_(isReverse_ ? lastKey() : firstKey());
        return;
    }
    if (isReverse_)
        cursor_->seekBefore(*bounds.upper);
    else
        cursor_->seek(bounds.lower);
    takeCursor_();
}

void MergeSource_::beginLazily_(std::string_view key) {
    ownRecord_ = {key, 0, kInlineRecord, {}};
    record_ = &ownRecord_;
    isLazy_ = true;
    isValid_ = true;
}

void MergeSource_::readFirst_() {
    isLazy_ = false;
    record_ = &cursor_->record();
    if (isReverse_)
        cursor_->seekToLast();
    else
        cursor_->seekToFirst();
    takeCursor_();
}

void MergeSource_::beginList_(const KeyBounds_& bounds) {
    const std::size_t first = positionOf_(bounds.lower);
    const std::size_t end = bounds.upper.has_value() ? positionOf_(*bounds.upper) : listSize_();
    record_ = &ownRecord_;
    left_ = end - first;
    position_ = isReverse_ ? end - 1 : first;
    takePosition_();
}

void MergeSource_::takePosition_() noexcept {
    isValid_ = left_ > 0;
    if (!isValid_)
        return;
    if (indexEntries_ != nullptr) {
        const auto& [key, entry] = *(*indexEntries_)[position_];
        fetchAhead(*indexEntries_, position_, isReverse_);
        ownRecord_ = {key.view(), entry.sequence, entry.tombstone ? kTombstoneRecord : kInlineRecord, {}};
        return;
    }
    const auto& [key, entry] = *(*records_)[position_];
    fetchAhead(*records_, position_, isReverse_);
    ownRecord_ = {key.view(), entry.sequence, entry.tombstone ? kTombstoneRecord : kInlineRecord, entry.value.view()};
    entry_ = &entry;
}

std::string_view MergeSource_::firstKey() const noexcept {
    return table_ != nullptr ? table_->firstKey().view() : keyAt_(0);
}

std::string_view MergeSource_::lastKey() const noexcept {
    return table_ != nullptr ? table_->lastKey().view() : keyAt_(listSize_() - 1);
}

/// Of the first entry whose key is not less.
std::size_t MergeSource_::positionOf_(std::string_view key) const noexcept {
    std::size_t first = 0;
    for (std::size_t count = listSize_(); count > 0;) {
        const std::size_t half = count / 2;
        const bool isLess = keyAt_(first + half) < key;
        first += isLess ? half + 1 : 0;
        count = isLess ? count - half - 1 : half;
    }
    return first;
}

} // namespace znEmbeddedDbDetail
