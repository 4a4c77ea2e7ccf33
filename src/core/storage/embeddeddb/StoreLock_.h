#pragma once

#include "core/platform/ZnStorageFiles.h"
#include "core/storage/embeddeddb/StorePaths_.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbStatus.h"

#include <memory>

namespace znEmbeddedDbDetail {

/// The lock of a store that is open for writing: the file "LOCK", which also holds the id of the process, for people.
///
/// Thread: one at a time. Owner: Store_. A child that has been forked must not use the store.
class StoreLock_ {
public:
    /// Code 2, with who has it where that can be known, when somebody else has it, this process included.
    ZnEmbeddedDbStatus take(ZnStorageFiles& files, const StorePaths_& paths);
    bool isHeld() const noexcept { return lock_ != nullptr; }
    void release() noexcept { lock_.reset(); }

private:
    std::unique_ptr<ZnStorageLock> lock_;
};

} // namespace znEmbeddedDbDetail
