#pragma once

#include "core/platform/ZnStorageFiles.h"
#include "core/storage/embeddeddb/TableMeta_.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbStatus.h"

#include <cstdint>
#include <string_view>
#include <vector>

// The manifest "MANIFEST-<id>.dbm" is one JSON object in one line, members in ascending order of their names, all
// numbers integers: the counters below under their own names, and "tables", an array of objects with the members of
// TableMeta_. "CURRENT" is the name of the manifest in force and a line feed.
namespace znEmbeddedDbDetail {

/// What the store knows about its files; written as a whole, in force when CURRENT names it. Thread: a value.
struct ManifestState_ {
    std::uint64_t manifestId = 0;      // of the next manifest; in a file, its own
    std::uint64_t maxSequence = 0;     // largest in any table
    std::uint64_t replayFromWalId = 1; // oldest log that is needed
    std::uint64_t activeWalId = 1;     // log that is written to
    std::uint64_t nextWalId = 2;
    std::uint64_t nextTableId = 1; // for tables and blob files
    std::vector<TableMeta_> tables;

    bool operator==(const ManifestState_& other) const = default;
};

/// Whether an index may have this name: 1 to 64 bytes of letters, digits, "_", "." and "-", first a letter or "_", and
/// not "true", "false" or "null".
bool isIndexName(std::string_view name) noexcept;

ZnString encodeManifest(const ManifestState_& state);
/// False, with `*state` as it was, for a text that no store can have written; `*errorText` says why. Members that are
/// not known are passed over.
bool decodeManifest(std::string_view text, ManifestState_* state, ZnString* errorText);

/// Writes the state as manifest number `manifestId`, makes CURRENT name it, and raises `manifestId`. On failure (code
/// 6) the number stays: if CURRENT still names the old manifest, the new file is not referred to, and the next write
/// replaces it. `*syncErrorOut` as in replaceFileDurable.
ZnEmbeddedDbStatus writeManifest(ZnStorageFiles& files, const ZnString& rootPath, ManifestState_* state,
                                 ZnString* syncErrorOut = nullptr);
/// The number of the manifest in force. Code 1 when there is no CURRENT, code 7 when it holds anything but one
/// manifest's name and a line feed.
ZnEmbeddedDbStatus readCurrent(ZnStorageFiles& files, const ZnString& rootPath, std::uint64_t* manifestId);
/// The content of a manifest, which must bear its own number. Code 7 also when it is missing.
ZnEmbeddedDbStatus readManifest(ZnStorageFiles& files, const ZnString& rootPath, std::uint64_t manifestId,
                                ManifestState_* state);

} // namespace znEmbeddedDbDetail
