#include "core/fs/ZnDir.h"

#include "core/platform/ZnDirPlatform.h"
#include "core/types/ZnLogger.h"

bool ZnDir::setPath(const ZnString& path) {
    ZnDirPlatform* platform = znDirPlatform();
    ZnString normal = platform->normalizePath(path);
    if (!platform->isDirectory(normal)) {
        ZN_LOG_ERROR("zn.core.fs.zndir", "ZnDir::setPath") << "Error set path failed!";
        return false;
    }
    const ZnString separator = platform->separator();
    if (!normal.endsWith(separator.view()))
        normal += separator;
    path_ = std::move(normal);
    return true;
}

bool ZnDir::mkpathAt(const ZnString& path, bool normalizeFirst) {
    ZnDirPlatform* platform = znDirPlatform();
    const ZnString target = normalizeFirst ? platform->normalizePath(path) : path;
    if (target.isEmpty())
        return false;
    return platform->mkpath(target) || platform->isDirectory(platform->normalizePath(target));
}
