#include "core/storage/embeddeddb/MemtableArena_.h"

#include <cstring>
#include <new>

namespace znEmbeddedDbDetail {

char* MemtableArena_::newChunk_(std::size_t byteCount) {
    chunks_.push_back(std::make_unique_for_overwrite<char[]>(byteCount));
    return chunks_.back().get();
}

HeldBytes_ MemtableArena_::hold(std::string_view bytes) {
    if (bytes.empty())
        return {};
    char* place = bytes.size() >= kLargeBytes ? newChunk_(bytes.size()) : static_cast<char*>(allocate(bytes.size(), 1));
    std::memcpy(place, bytes.data(), bytes.size());
    return HeldBytes_({place, bytes.size()});
}

void* MemtableArena_::do_allocate(std::size_t byteCount, std::size_t alignment) {
    if (byteCount >= kLargeBytes)
        return ::operator new(byteCount, std::align_val_t(alignment));
    void* place = free_;
    if (free_ == nullptr || std::align(alignment, byteCount, place, freeBytes_) == nullptr) {
        place = free_ = newChunk_(kChunkBytes); // aligned for everything
        freeBytes_ = kChunkBytes;
    }
    free_ = static_cast<char*>(place) + byteCount;
    freeBytes_ -= byteCount;
    return place;
}

void MemtableArena_::do_deallocate(void* place, std::size_t byteCount, std::size_t alignment) {
    if (byteCount >= kLargeBytes)
        ::operator delete(place, std::align_val_t(alignment));
}

} // namespace znEmbeddedDbDetail
