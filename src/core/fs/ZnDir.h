#pragma once

#include "core/types/ZnString.h"

/// One directory, by its normal path.
///
/// Thread: a value.
/// Invariant: the path is empty or ends in the separator, and named a directory when it was set.
class ZnDir {
public:
    /// Returns false, with an error in the log and the path unchanged, when `path` is no directory.
    bool setPath(const ZnString& path);
    const ZnString& path() const noexcept { return path_; }

    /// Makes the directory and those above it, `path` taken in normal form first if asked for. Returns whether there is
    /// one now.
    static bool mkpathAt(const ZnString& path, bool normalizeFirst);

private:
    ZnString path_;
};
