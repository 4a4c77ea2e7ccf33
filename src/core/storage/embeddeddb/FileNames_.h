#pragma once

#include "core/platform/ZnStorageFiles.h"
#include "core/types/ZnString.h"

#include <cstdint>
#include <string_view>
#include <vector>

/// Names of the store's files: a prefix, an id in decimal without padding, a suffix. 0 is never an id, but of the first
/// manifest.
namespace znEmbeddedDbDetail {

inline constexpr const char* kCurrentFileName = "CURRENT";
inline constexpr const char* kLockFileName = "LOCK";
inline constexpr std::string_view kBlobPrefix = "BLOB-";
inline constexpr std::string_view kBlobSuffix = ".dat";
inline constexpr std::string_view kWalPrefix = "WAL-";
inline constexpr std::string_view kWalSuffix = ".log";
inline constexpr std::string_view kManifestPrefix = "MANIFEST-";
inline constexpr std::string_view kManifestSuffix = ".dbm";

ZnString tableFileName(std::int32_t level, std::uint64_t id);
ZnString blobFileName(std::uint64_t id);
ZnString walFileName(std::uint64_t id);
ZnString manifestFileName(std::uint64_t id);

/// The number between prefix and suffix in the bare name of `path`; 0 for every other name, also for one that this code
/// would not have written (a leading zero, a sign, more than 64 bits).
std::uint64_t parseFileId(const ZnString& path, std::string_view prefix, std::string_view suffix);

/// The id in the bare name of a table or of a blob file, or of one in the making; 0 for other names.
std::uint64_t dataFileId(const ZnString& name);

/// Whether a bare name is that of a file of a store, of one in the making (".tmp" behind it) included.
bool isStoreFileName(const ZnString& name);

/// Full paths, in ascending order, of the files in `directory` whose names begin and end so; none when there is no such
/// directory.
std::vector<ZnString> listFiles(ZnStorageFiles& files, const ZnString& directory, std::string_view prefix,
                                std::string_view suffix);

} // namespace znEmbeddedDbDetail
