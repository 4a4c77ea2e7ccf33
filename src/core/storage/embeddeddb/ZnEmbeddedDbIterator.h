#pragma once

#include "core/storage/embeddeddb/ZnEmbeddedDbBatch.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbStatus.h"

#include <cstdint>
#include <memory>
#include <string_view>

namespace znEmbeddedDbDetail {
class IteratorCore_;
} // namespace znEmbeddedDbDetail

/// Goes through records in the order of their keys, as they were when it was made.
///
///     for (auto records = store.scan({.prefix = ZnByteArray("user/")}); records.valid(); records.next()) ...
///     if (!records.status().isOk()) ... // not all was seen
///
/// Thread: one at a time. It stays good when the store is closed, and must be destroyed before the
/// ZnStorageFiles of the store. While it lives, the files that it reads stay on disk, also replaced ones.
class ZnEmbeddedDbIterator {
public:
    explicit ZnEmbeddedDbIterator(std::unique_ptr<znEmbeddedDbDetail::IteratorCore_> core);
    /// One that is not valid and ends with `status`.
    explicit ZnEmbeddedDbIterator(ZnEmbeddedDbStatus status);
    ~ZnEmbeddedDbIterator();
    ZnEmbeddedDbIterator(ZnEmbeddedDbIterator&& other) noexcept;
    ZnEmbeddedDbIterator& operator=(ZnEmbeddedDbIterator&& other) noexcept;

    /// False past the last record, and when it could not go on: see status().
    bool valid() const noexcept;
    /// The rest only while valid(). Views are good until the next call of next().
    void next();
    std::string_view key() const noexcept;
    /// Empty when only keys were asked for.
    std::string_view value() const noexcept;
    /// The number of the write that made the record; later ones have greater numbers.
    std::uint64_t sequence() const noexcept;
    ZnEmbeddedDbIndexKeys indexKeys() const;
    /// Of an iterator over an index: the secondary key that led to this record.
    std::string_view secondaryKey() const noexcept;

    /// Why it ended: Ok after the last record.
    const ZnEmbeddedDbStatus& status() const noexcept;

private:
    std::unique_ptr<znEmbeddedDbDetail::IteratorCore_> core_; // null: ended with status_
    ZnEmbeddedDbStatus status_;
};
