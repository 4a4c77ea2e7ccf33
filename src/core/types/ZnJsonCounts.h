#pragma once

#include "core/types/ZnJsonDocument.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// How many elements or members the containers of a JSON text have, in the order in which they open.
///
/// Known before the parse, they let every container have its final place from the start: nothing is moved while it
/// grows, and the peak is the tree. Costs one byte per container. Right for every text that the parser takes (for one
/// with enciphered scalars nearly always); for others the counts end somewhere, and say nothing.
/// Internal to this folder.
class ZnJsonCounts_ {
public:
    void count(std::string_view text);
    /// The count of the next container; 0 at the end.
    std::size_t next() noexcept;
    /// What the blocks of the tree need, as far as they are small enough for slabs.
    std::size_t slabBytes() const noexcept { return slabBytes_; }

private:
    static constexpr unsigned char kIsLarge_ = 255; // stands for the next one of large_

    struct Large_ {
        std::size_t index; // in counts_
        std::uint32_t count;
    };
    struct Open_ {
        std::size_t index;
        std::uint32_t commaCount;
    };

    using Levels_ = std::array<Open_, ZnJsonDocument::kMaxDepth>;

    void store_(const Open_& container, std::uint32_t count, bool isObject);
    void finish_(const Levels_& open, std::size_t depth);

    std::string counts_; // one byte each; a few dozen fit without an allocation
    std::vector<Large_> large_;
    std::size_t nextIndex_ = 0;
    std::size_t nextLargeIndex_ = 0;
    std::size_t slabBytes_ = 0;
};
