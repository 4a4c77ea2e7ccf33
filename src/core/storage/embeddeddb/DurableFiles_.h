#pragma once

#include "core/platform/ZnStorageFiles.h"
#include "core/types/ZnString.h"

#include <string_view>

/// Making a file's content or name last, in the one order that is safe: content, name, directory.
///
/// All give false for a failure, with the reason in `*errorOut` unless that is null. Thread: any.
namespace znEmbeddedDbDetail {

/// Brings the names in a directory to stable storage. An empty path is a success.
bool syncDirectory(ZnStorageFiles& files, const ZnString& path, ZnString* errorOut = nullptr);

/// Gives `from`, whose content must be on stable storage, the name `to`, and makes the name last. It is a success as
/// soon as the name is there: that the directory could not be synced then is told in `*syncErrorOut` alone, and whoever
/// depends on the name must not go on as if it would last.
bool replaceFileDurable(ZnStorageFiles& files, const ZnString& from, const ZnString& to, ZnString* errorOut = nullptr,
                        ZnString* syncErrorOut = nullptr);

/// Replaces the content of `path` in one step: after a crash it holds the old content or the new one, at worst beside a
/// stale `path` + ".tmp". `syncErrorOut` as above.
bool writeFileAtomic(ZnStorageFiles& files, const ZnString& path, std::string_view bytes, ZnString* errorOut = nullptr,
                     ZnString* syncErrorOut = nullptr);

} // namespace znEmbeddedDbDetail
