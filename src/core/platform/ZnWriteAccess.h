#pragma once

#include "core/types/ZnString.h"

/// Whether something can be written in the file system, without writing it. Any thread; may wait for the disk.
namespace ZnWriteAccess {

/// Why the file cannot be written, or made in the directory that it names; empty when nothing speaks against it.
ZnString fileProblem(const ZnString& path);
/// Why the directory cannot be used for files, or be made with those above it; empty when nothing speaks against it.
ZnString directoryProblem(const ZnString& path);

} // namespace ZnWriteAccess
