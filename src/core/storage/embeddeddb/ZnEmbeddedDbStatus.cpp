#include "core/storage/embeddeddb/ZnEmbeddedDbStatus.h"

ZnEmbeddedDbStatus ZnEmbeddedDbStatus::at(const ZnString& path) const {
    return isOk() ? *this : ZnEmbeddedDbStatus(code_, message_ + ": " + path);
}
