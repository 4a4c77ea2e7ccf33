#pragma once

#include "core/platform/ZnDirPlatform.h"
#include "core/platform/ZnFilePlatform.h"

/// Files over the system's calls. A creation time can be read but not set; named attributes are extended attributes
/// "user.<name>" with UTF-8 values.
class ZnLinuxFilePlatform final : public ZnFilePlatform {
public:
    ZnFileDescriptor open(const ZnString& path, Access access) override;
    bool isFile(const ZnString& path) override;
    bool copy(const ZnString& source, const ZnString& destination, bool overwrite) override;
    bool remove(const ZnString& path) override;
    bool getFileMetadata(const ZnString& path, long long* creation, long long* lastAccess,
                         long long* lastWrite) override;
    bool setCreationTime(const ZnString& path, long long seconds) override;
    bool setLastWriteTime(const ZnString& path, long long seconds) override;
    bool setLastAccessTime(const ZnString& path, long long seconds) override;
    bool setAllFileTimes(const ZnString& path, long long creation, long long lastAccess, long long lastWrite) override;
    bool writeMetadata(const ZnString& path, const ZnString& streamName, const ZnString& value) override;
    ZnString readMetadata(const ZnString& path, const ZnString& streamName) override;
};

/// Directories over the system's calls. Normal paths are absolute, with "/" and without "." and ".." pieces, which are
/// resolved in the text alone.
class ZnLinuxDirPlatform final : public ZnDirPlatform {
public:
    bool exists(const ZnString& path) override;
    bool isDirectory(const ZnString& path) override;
    ZnString normalizePath(const ZnString& path) override;
    ZnString separator() override { return "/"; }
    ZnList<ZnString> entryList(const ZnString& path, const ZnList<ZnString>& nameFilters, int typeFlags) override;
    ZnList<ZnString> entryList(const ZnString& path, int typeFlags) override;
    ZnList<ZnString> findFiles(const ZnString& path, const ZnList<ZnString>& nameFilters) override;
    ZnString absolutePath(const ZnString& path) override { return normalizePath(path); }
    ZnString currentPath() override;
    bool mkpath(const ZnString& path) override;
    bool removeRecursively(const ZnString& path) override;
    bool copyDirectory(const ZnString& source, const ZnString& destination) override;
};
