#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <memory_resource>
#include <string_view>
#include <vector>

namespace znEmbeddedDbDetail {

/// Bytes that an arena holds, or, for a moment, somebody else does.
class HeldBytes_ {
public:
    HeldBytes_() = default;
    explicit HeldBytes_(std::string_view bytes) noexcept : at_(bytes.data()), size_(bytes.size()) {}

    std::string_view view() const noexcept { return {at_, size_}; }
    const char* data() const noexcept { return at_; }
    std::size_t size() const noexcept { return size_; }
    /// The same bytes at another place: keys of a map stay equal.
    void moveTo(const char* place) const noexcept { at_ = place; }

private:
    mutable const char* at_ = "";
    std::size_t size_ = 0;
};

/// Memory that is given back as a whole: the entries of a memtable, one behind the other.
///
/// A hundred thousand entries are freed by a few calls, instead of three for each, during which other threads that
/// want memory would wait. Thread: that of its memtable. Owner: the memtable; outlives its maps.
class MemtableArena_ final : public std::pmr::memory_resource {
public:
    /// A copy.
    HeldBytes_ hold(std::string_view bytes);

private:
    static constexpr std::size_t kChunkBytes = 128 * 1024;
    static constexpr std::size_t kLargeBytes = 16 * 1024; // not worth a place in a chunk

    char* newChunk_(std::size_t byteCount);
    void* do_allocate(std::size_t byteCount, std::size_t alignment) override;
    /// Large ones alone: a table of buckets that has become too small is as large as all entries.
    void do_deallocate(void* place, std::size_t byteCount, std::size_t alignment) override;
    bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override { return this == &other; }

    std::vector<std::unique_ptr<char[]>> chunks_;
    char* free_ = nullptr; // in the last chunk
    std::size_t freeBytes_ = 0;
};

} // namespace znEmbeddedDbDetail
