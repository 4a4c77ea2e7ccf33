#pragma once

#include "core/storage/embeddeddb/ReadView_.h"
#include "core/storage/embeddeddb/StorePaths_.h"
#include "core/storage/embeddeddb/TableMeta_.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbVerifyReport.h"

#include <cstdint>
#include <optional>

namespace znEmbeddedDbDetail {

/// Reads every table, block, filter, stored value and blob value that `view` refers to, from the disk, and
/// checks them against each other: tables with their metas of the manifest, tables of one kind for their
/// order and for equal sequences of a key, indexes with primary records. `view` has no active memtable, and
/// its tables stay on the disk meanwhile. Files with `firstRunningFileId` and above may be those of work that
/// is not over: no orphans. Nor are manifests and logs that are not needed any more, nor temporary files of manifests:
/// a store that works has those now and then, and nobody can tell from outside. With `readManifestId` the store is open
/// to read only, as that manifest shows it: tables that a writer has replaced since are checked as they are open, and
/// so are blob files. Code 7, with the report, when anything is wrong.
ZnEmbeddedDbStatus verifyStore(ZnStorageFiles& files, const StorePaths_& paths, const ReadView_& view,
                               std::uint64_t firstRunningFileId, std::optional<std::uint64_t> readManifestId,
                               ZnEmbeddedDbVerifyReport* report, const ZnEmbeddedDbProgress& progress);

} // namespace znEmbeddedDbDetail
