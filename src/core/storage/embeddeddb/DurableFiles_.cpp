#include "core/storage/embeddeddb/DurableFiles_.h"

#include "core/fs/ZnPath.h"
#include "core/platform/ZnDirPlatform.h"
#include "core/storage/embeddeddb/RandomAccessFile_.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace znEmbeddedDbDetail {

namespace {

/// Whether a sync itself failed, and not the opening of the directory for it.
bool isSyncError(int error) {
    constexpr int kSyncErrors[] = {EIO, ENOSPC, EDQUOT, EROFS};
    return std::find(std::begin(kSyncErrors), std::end(kSyncErrors), error) != std::end(kSyncErrors);
}

} // namespace

bool syncDirectory(ZnStorageFiles& files, const ZnString& path, ZnString* errorOut) {
    const ZnString normal = znDirPlatform()->normalizePath(path);
    if (normal.isEmpty())
        return true;
    const int error = files.syncDirectory(normal);
    const char* what = isSyncError(error) ? "FlushFileBuffers(dir) failed" : "syncDirectory open failed";
    return error == 0 || failWithCode(what, error, errorOut);
}

bool replaceFileDurable(ZnStorageFiles& files, const ZnString& from, const ZnString& to, ZnString* errorOut,
                        ZnString* syncErrorOut) {
    ZnDirPlatform& paths = *znDirPlatform();
    const ZnString parent = parentPath(to);
    if (!parent.isEmpty())
        files.makePath(parent); // if that fails, the rename below tells why
    if (const int error = files.rename(paths.normalizePath(from), paths.normalizePath(to)); error != 0)
        return failWithCode("MoveFileExW failed", error, errorOut);
    syncDirectory(files, parent, syncErrorOut);
    return true;
}

bool writeFileAtomic(ZnStorageFiles& files, const ZnString& path, std::string_view bytes, ZnString* errorOut,
                     ZnString* syncErrorOut) {
    const ZnString parent = parentPath(path);
    if (parent.isEmpty() || files.makePath(parent) != 0) {
        if (errorOut != nullptr)
            *errorOut = "failed to create directory: " + parent;
        return false;
    }
    const ZnString temporary = path + ".tmp";
    RandomAccessFile_ file(files);
    if (!file.open(temporary, RandomAccessFile_::Mode::Truncate, errorOut))
        return false;
    const bool isWritten = file.writeAt(0, bytes.data(), bytes.size(), errorOut) && file.flush(errorOut);
    file.close();
    if (!isWritten) {
        files.remove(temporary);
        return false;
    }
    return replaceFileDurable(files, temporary, path, errorOut, syncErrorOut);
}

} // namespace znEmbeddedDbDetail
