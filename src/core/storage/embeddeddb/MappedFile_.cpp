#include "core/storage/embeddeddb/MappedFile_.h"

#include "core/platform/ZnDirPlatform.h"
#include "core/storage/embeddeddb/RandomAccessFile_.h"

namespace znEmbeddedDbDetail {

bool MappedFile_::open(ZnStorageFiles& files, const ZnString& path, ZnString* errorOut) {
    close();
    ZnString normal = znDirPlatform()->normalizePath(path);
    constexpr auto kUnknown = ~std::uint64_t(0);
    std::uint64_t sizeBytes = kUnknown;
    std::unique_ptr<ZnStorageMapping> mapping;
    const int error = files.map(normal, &mapping, &sizeBytes);
    if (sizeBytes == 0)
        return failWithCode("GetFileSizeEx failed", 0, errorOut);
    if (error != 0) {
        const bool wasOpened = sizeBytes != kUnknown;
        return failWithCode(wasOpened ? "MapViewOfFile failed" : "CreateFileW mmap failed", error, errorOut);
    }
    path_ = std::move(normal);
    mapping_ = std::move(mapping);
    bytes_ = {mapping_->data(), static_cast<std::size_t>(sizeBytes)};
    return true;
}

void MappedFile_::close() noexcept {
    bytes_ = std::string_view();
    mapping_.reset();
    path_.clear();
}

} // namespace znEmbeddedDbDetail
