#include "core/platform/ZnSharedLibrary.h"

#include <dlfcn.h>

void* ZnSharedLibrary::load(const ZnString& fileName) {
    return ::dlopen(fileName.data(), RTLD_NOW | RTLD_LOCAL);
}

void* ZnSharedLibrary::symbol(void* library, const char* name) {
    return ::dlsym(library, name);
}
