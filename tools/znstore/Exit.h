#pragma once

#include "core/storage/embeddeddb/ZnEmbeddedDbStatus.h"
#include "core/types/ZnString.h"

namespace znstore {

/// How the program ends. Told in the help text; scripts rely on it.
enum ExitCode : int {
    kExitOk = 0,
    kExitNothingFound = 1,
    kExitUsage = 2, // arguments, or lines given to load
    kExitNotOpened = 3,
    kExitIo = 4,
    kExitDamaged = 5
};

/// Each writes one line to standard error and gives the exit code.
int fail(ExitCode code, const ZnString& text);
int fail(const ZnEmbeddedDbStatus& status);
/// Of a store that did not open.
int failToOpen(const ZnEmbeddedDbStatus& status);

} // namespace znstore
