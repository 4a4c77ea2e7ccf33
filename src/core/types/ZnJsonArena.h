#pragma once

#include "core/types/ZnJsonNode.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

// Memory for the blocks of JSON trees. Internal to this folder.

/// The head of a slab: memory for many blocks of one tree, given back when the last of them is. Blocks may move into
/// other trees and threads; each keeps its whole slab.
struct ZnJsonSlab_ {
    static constexpr std::size_t kMaxBytes = 65536 - 64; // offsets have sixteen bits
    static constexpr std::size_t kMaxBlockBytes = 8192; // larger ones are allocated on their own: they would waste much

    /// Adds blocks, or gives back as many with a number below 0. The one who comes to 0 frees the slab.
    void add(std::int32_t blockCount) noexcept;

    /// Blocks in use. An arena adds its blocks when it is through with the slab: until then this is too low, and not
    /// above 0, so that no block that is given back early can end the slab.
    std::atomic<std::int32_t> balance{0};
};

/// Hands out blocks of slabs while one tree is built. Every block must be in its cell before anything can throw.
class ZnJsonArena_ {
public:
    /// The first slab has room for so much, within limits; each further one for twice as much as the last.
    explicit ZnJsonArena_(std::size_t expectedBytes = 512) noexcept { expect(expectedBytes); }
    ZnJsonArena_(const ZnJsonArena_&) = delete;
    ZnJsonArena_& operator=(const ZnJsonArena_&) = delete;
    ~ZnJsonArena_() { closeSlab_(); }

    void expect(std::size_t byteCount) noexcept;
    /// At most ZnJsonSlab_::kMaxBlockBytes. `alignment` is 1 or 8.
    void* take(std::size_t byteCount, std::size_t alignment, std::uint16_t* slabOffset);

private:
    void openSlab_(std::size_t byteCount);
    void closeSlab_() noexcept;

    std::byte* slab_ = nullptr; // begins with a ZnJsonSlab_
    std::size_t usedBytes_ = 0;
    std::size_t slabBytes_ = 0;
    std::size_t nextSlabBytes_ = 0;
    std::int32_t blockCount_ = 0; // in the current slab
};

/// Gives blocks back; those of one slab that come in a row at once.
class ZnJsonReleaser_ {
public:
    ZnJsonReleaser_() noexcept = default;
    ZnJsonReleaser_(const ZnJsonReleaser_&) = delete;
    ZnJsonReleaser_& operator=(const ZnJsonReleaser_&) = delete;
    ~ZnJsonReleaser_() { flush_(); }

    /// Of a cell that has a block; the values in it must have been given back.
    void give(const ZnJsonCell_& cell) noexcept;

private:
    void flush_() noexcept;

    ZnJsonSlab_* slab_ = nullptr;
    std::int32_t blockCount_ = 0;
};

namespace zn::detail {

/// Makes `cell`, which has no block, a text of this kind. Without an arena a long text gets a block of its own.
/// std::length_error above 2^32 - 1 bytes.
void setText(ZnJsonCell_& cell, std::uint8_t kind, std::string_view text, ZnJsonArena_* arena);

/// Gives an empty container without a block one for `capacity` values, above 0. std::length_error above 2^32 - 1.
void makeBlock(ZnJsonCell_& container, std::size_t capacity, ZnJsonArena_* arena);

/// Moves the values of a container into a block for `capacity` values, enough for those that are there; 0 leaves it
/// without one. std::length_error above 2^32 - 1 values.
void moveToBlock(ZnJsonCell_& container, std::size_t capacity, ZnJsonArena_* arena);

/// How many values fit into the block of a container.
std::size_t blockCapacity(const ZnJsonCell_& container) noexcept;

/// Makes room for one element or member more. Blocks grow by half, so that filling one costs a constant time per child.
void makeRoom(ZnJsonCell_& container);

} // namespace zn::detail
