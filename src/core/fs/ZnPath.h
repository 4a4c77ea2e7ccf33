#pragma once

#include "core/types/ZnString.h"

/// `path` with "/" for every "\".
ZnString withForwardSlashes(ZnString path);

/// The directory above, in normal form; empty when that is the root or `path` is empty.
ZnString parentPath(const ZnString& path);

/// `name` below `base`, in normal form; the other one unchanged when one of them is empty.
ZnString joinPath(const ZnString& base, const ZnString& name);
