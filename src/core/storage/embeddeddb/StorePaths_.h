#pragma once

#include "core/fs/ZnPath.h"
#include "core/storage/embeddeddb/TableFormat_.h"
#include "core/types/ZnString.h"

namespace znEmbeddedDbDetail {

/// The directories of a store; all empty while it is closed. Thread: a value.
struct StorePaths_ {
    StorePaths_() = default;
    /// `root` in normal form.
    explicit StorePaths_(const ZnString& root)
        : rootPath(root),
          walDir(joinPath(root, "wal")),
          tablesDir(joinPath(root, kTablesDirectory)),
          blobsDir(joinPath(root, "blobs")),
          tempDir(joinPath(root, "tmp")) {}

    ZnString rootPath;
    ZnString walDir;
    ZnString tablesDir;
    ZnString blobsDir;
    ZnString tempDir;
};

} // namespace znEmbeddedDbDetail
