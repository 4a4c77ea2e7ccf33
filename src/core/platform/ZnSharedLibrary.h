#pragma once

#include "core/types/ZnString.h"

/// Libraries that are bound at run time. Thread: any. Libraries are never unloaded.
namespace ZnSharedLibrary {
/// The handle of the library, null when it cannot be loaded. A name without "/" goes through the system's search.
void* load(const ZnString& fileName);
/// The address of an exported function, null when the library does not have it.
void* symbol(void* library, const char* name);
} // namespace ZnSharedLibrary
