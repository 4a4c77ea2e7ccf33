#pragma once

#include "core/platform/ZnStorageFiles.h"
#include "core/types/ZnString.h"

#include <cstdint>
#include <memory>
#include <string_view>

namespace znEmbeddedDbDetail {

/// A whole file, mapped for reading. An empty file cannot be mapped.
///
/// Thread: any may read the bytes while the owner keeps it open; the rest, one at a time.
class MappedFile_ {
public:
    bool open(ZnStorageFiles& files, const ZnString& path, ZnString* errorOut = nullptr);
    void close() noexcept;
    bool isOpen() const noexcept { return mapping_ != nullptr; }

    const ZnString& path() const noexcept { return path_; }
    /// Empty when closed.
    std::string_view bytes() const noexcept { return bytes_; }
    std::uint64_t size() const noexcept { return bytes_.size(); }

private:
    ZnString path_;
    std::unique_ptr<ZnStorageMapping> mapping_; // null: closed
    std::string_view bytes_;
};

} // namespace znEmbeddedDbDetail
