#include "core/types/ZnJsonArena.h"

#include "core/types/ZnJsonValue.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>

namespace {

constexpr std::size_t kHeadBytes = 8; // of a slab: ZnJsonSlab_; of a container's own block: its capacity in values
constexpr std::size_t kMinGrowth = 4; // elements or members
constexpr std::size_t kMaxCount = std::numeric_limits<std::uint32_t>::max();
static_assert(sizeof(ZnJsonSlab_) <= kHeadBytes && sizeof(std::size_t) == kHeadBytes);

/// Up to fourteen bytes, which are no more than two moves: most texts and names are so short.
void copyShort(std::string_view text, char* to) {
    const auto copyEnds = [&]<typename Word>(Word word) {
        const std::size_t last = text.size() - sizeof(word);
        std::memcpy(&word, text.data() + last, sizeof(word));
        Word first;
        std::memcpy(&first, text.data(), sizeof(first));
        std::memcpy(to, &first, sizeof(first));
        std::memcpy(to + last, &word, sizeof(word));
    };
    if (text.size() >= sizeof(std::uint64_t))
        copyEnds(std::uint64_t{});
    else if (text.size() >= sizeof(std::uint32_t))
        copyEnds(std::uint32_t{});
    else
        std::copy_n(text.data(), text.size(), to);
}

/// The address for `cell.block.data` of a new block of its own.
void* newContainerBlock(std::size_t capacity) {
    std::byte* const block = static_cast<std::byte*>(::operator new(kHeadBytes + capacity * sizeof(ZnJsonValue)));
    ::new (block) std::size_t(capacity);
    return block + kHeadBytes;
}

void freeOwnBlock(const ZnJsonCell_& cell) noexcept {
    std::byte* const data = static_cast<std::byte*>(cell.block.data);
    ::operator delete(cell.isContainer() ? data - kHeadBytes : data);
}

} // namespace

void ZnJsonSlab_::add(std::int32_t blockCount) noexcept {
    // Releases what this thread did with its blocks; the last one acquires what all others did.
    if (balance.fetch_add(blockCount, std::memory_order_acq_rel) + blockCount == 0)
        ::operator delete(this);
}

void ZnJsonArena_::expect(std::size_t byteCount) noexcept {
    nextSlabBytes_ = std::clamp<std::size_t>(kHeadBytes + byteCount, 64, ZnJsonSlab_::kMaxBytes);
}

void* ZnJsonArena_::take(std::size_t byteCount, std::size_t alignment, std::uint16_t* slabOffset) {
    std::size_t start = (usedBytes_ + alignment - 1) & ~(alignment - 1);
    if (start + byteCount > slabBytes_) {
        openSlab_(byteCount);
        start = usedBytes_;
    }
    usedBytes_ = start + byteCount;
    ++blockCount_;
    *slabOffset = static_cast<std::uint16_t>(start);
    return slab_ + start;
}

void ZnJsonArena_::openSlab_(std::size_t byteCount) {
    closeSlab_();
    slabBytes_ = std::max(nextSlabBytes_, kHeadBytes + byteCount);
    slab_ = static_cast<std::byte*>(::operator new(slabBytes_));
    ::new (slab_) ZnJsonSlab_;
    usedBytes_ = kHeadBytes;
    expect(2 * slabBytes_);
}

void ZnJsonArena_::closeSlab_() noexcept {
    if (slab_ != nullptr)
        std::launder(reinterpret_cast<ZnJsonSlab_*>(slab_))->add(blockCount_);
    slab_ = nullptr;
    slabBytes_ = 0;
    blockCount_ = 0;
}

void ZnJsonReleaser_::give(const ZnJsonCell_& cell) noexcept {
    if (cell.block.slabOffset == 0) {
        freeOwnBlock(cell);
        return;
    }
    void* const head = static_cast<std::byte*>(cell.block.data) - cell.block.slabOffset;
    if (head != slab_) {
        flush_();
        slab_ = static_cast<ZnJsonSlab_*>(head);
    }
    ++blockCount_;
}

void ZnJsonReleaser_::flush_() noexcept {
    if (blockCount_ > 0)
        slab_->add(-blockCount_);
    blockCount_ = 0;
}

void zn::detail::setText(ZnJsonCell_& cell, std::uint8_t kind, std::string_view text, ZnJsonArena_* arena) {
    if (text.size() <= ZnJsonCell_::kMaxShortBytes) {
        cell.shortText.kind = kind;
        cell.shortText.byteCount = static_cast<std::uint8_t>(text.size());
        copyShort(text, cell.shortText.bytes);
        return;
    }
    if (text.size() > kMaxCount)
        throw std::length_error("ZnJsonValue: text too long");
    ZnJsonCell_::Block_ block{static_cast<std::uint8_t>(kind | ZnJsonCell_::kHasBlock), false, 0,
                              static_cast<std::uint32_t>(text.size()), nullptr};
    block.data = arena != nullptr && text.size() <= ZnJsonSlab_::kMaxBlockBytes
                     ? arena->take(text.size(), 1, &block.slabOffset)
                     : ::operator new(text.size());
    std::memcpy(block.data, text.data(), text.size());
    cell.block = block;
}

void zn::detail::makeBlock(ZnJsonCell_& container, std::size_t capacity, ZnJsonArena_* arena) {
    if (capacity > kMaxCount)
        throw std::length_error("ZnJsonValue: too many children");
    const std::size_t byteCount = capacity * sizeof(ZnJsonValue);
    std::uint16_t slabOffset = 0;
    container.block.data = arena != nullptr && byteCount <= ZnJsonSlab_::kMaxBlockBytes
                               ? arena->take(byteCount, alignof(ZnJsonValue), &slabOffset)
                               : newContainerBlock(capacity);
    container.block.slabOffset = slabOffset;
    container.block.kind |= ZnJsonCell_::kHasBlock;
}

void zn::detail::moveToBlock(ZnJsonCell_& container, std::size_t capacity, ZnJsonArena_* arena) {
    ZnJsonCell_ moved(container.type());
    if (capacity > 0)
        makeBlock(moved, capacity, arena);
    moved.block.count = container.block.count;
    moved.block.isUnsorted = container.block.isUnsorted;
    // What is left behind is Null: nothing to destroy.
    std::uninitialized_move_n(container.values(), container.valueCount(), moved.values());
    if (container.hasBlock())
        ZnJsonReleaser_().give(container);
    container = moved;
}

std::size_t zn::detail::blockCapacity(const ZnJsonCell_& container) noexcept {
    if (!container.hasBlock())
        return 0;
    if (container.block.slabOffset != 0)
        return container.valueCount(); // what else there is, if anything, is not known
    return *reinterpret_cast<const std::size_t*>(static_cast<const std::byte*>(container.block.data) - kHeadBytes);
}

void zn::detail::makeRoom(ZnJsonCell_& container) {
    const std::size_t capacity = blockCapacity(container);
    const std::size_t width = container.valuesPerChild();
    if (container.valueCount() + width > capacity)
        moveToBlock(container, std::max(capacity + capacity / 2, capacity + kMinGrowth * width), nullptr);
}
