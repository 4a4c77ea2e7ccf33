#include "core/storage/embeddeddb/StoreLock_.h"

#include "core/platform/ZnProcess.h"
#include "core/storage/embeddeddb/FileNames_.h"
#include "core/storage/embeddeddb/RandomAccessFile_.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

/// What the holder left in the file; it may lack, or be an older one's for a moment.
ZnString holderText(ZnStorageFiles& files, const ZnString& path) {
    char text[20] = {};
    RandomAccessFile_ file(files);
    if (!file.open(path, RandomAccessFile_::Mode::ReadOnly))
        return {};
    const std::size_t byteCount = std::min<std::size_t>(sizeof(text), static_cast<std::size_t>(file.size()));
    if (!file.readAt(0, text, byteCount))
        return {};
    const ZnString id = ZnString(text, byteCount).trimmed();
    if (id.isEmpty() || !std::all_of(id.begin(), id.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return {};
    return id == ZnString::number(ZnProcess::currentId()) ? ", by this process" : ", by process " + id;
}

void noteHolder(ZnStorageFiles& files, const ZnString& path) {
    const ZnString text = ZnString::number(ZnProcess::currentId()) + "\n";
    std::unique_ptr<ZnStorageFile> file;
    bool isNew = false;
    std::size_t movedBytes = 0;
    if (files.open(path, {true, false, true, false}, &file, &isNew) == 0)
        file->writeAt(0, text.data(), text.size(), &movedBytes); // only people read it: a failure does not matter
}

} // namespace

ZnEmbeddedDbStatus StoreLock_::take(ZnStorageFiles& files, const StorePaths_& paths) {
    const ZnString path = joinPath(paths.rootPath, kLockFileName);
    ZnString error;
    switch (const int code = files.lock(path, &lock_); code) {
    case 0: noteHolder(files, path); return {};
    case EWOULDBLOCK:
        return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::Busy, "database is open elsewhere" + holderText(files, path))
            .at(paths.rootPath);
    default:
        failWithCode("LockFileEx failed", code, &error);
        return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(error)).at(path);
    }
}

} // namespace znEmbeddedDbDetail
