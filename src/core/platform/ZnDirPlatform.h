#pragma once

#include "core/types/ZnList.h"
#include "core/types/ZnString.h"

/// What the system needs of paths and directories.
///
/// Thread: any; implementations have no state.
/// Paths are UTF-8, with either slash form. Failures are false, or an empty text or list.
class ZnDirPlatform {
public:
    /// Bits of `typeFlags`.
    static constexpr int kFiles = 1;
    static constexpr int kDirectories = 2;

    virtual ~ZnDirPlatform() = default;

    virtual bool exists(const ZnString& path) = 0;
    virtual bool isDirectory(const ZnString& path) = 0;
    /// The absolute form of `path`, without a separator at its end; an empty path stays empty.
    virtual ZnString normalizePath(const ZnString& path) = 0;
    virtual ZnString separator() = 0;
    /// Bare names of the entries whose kind is asked for, in the order of the file system, without "." and "..".
    /// With filters a name must match one of them: "*" stands for any run of characters, everything else is read as
    /// in an ECMAScript expression, and case is ignored.
    virtual ZnList<ZnString> entryList(const ZnString& path, const ZnList<ZnString>& nameFilters, int typeFlags) = 0;
    virtual ZnList<ZnString> entryList(const ZnString& path, int typeFlags) = 0;
    /// Full paths of the files of the whole tree whose bare name matches. Links to directories are not followed.
    virtual ZnList<ZnString> findFiles(const ZnString& path, const ZnList<ZnString>& nameFilters) = 0;
    virtual ZnString absolutePath(const ZnString& path) = 0;
    /// The working directory, ending in the separator.
    virtual ZnString currentPath() = 0;
    /// Makes the directory and those above it. Something that stands at `path` already counts as made.
    virtual bool mkpath(const ZnString& path) = 0;
    /// Removes what can be removed; the result is whether `path` itself went. Never follows a link.
    virtual bool removeRecursively(const ZnString& path) = 0;
    /// Copies the tree, over existing files, up to the first failure. A destination inside the source is refused;
    /// links to directories are left out.
    virtual bool copyDirectory(const ZnString& source, const ZnString& destination) = 0;
};

/// The process-wide instance.
ZnDirPlatform* znDirPlatform();
