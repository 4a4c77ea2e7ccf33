#include "core/storage/embeddeddb/Manifest_.h"
#include "core/types/ZnAssert.h"
#include "core/types/ZnLogger.h"

#include <cstdint>

using namespace znEmbeddedDbDetail;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t byteCount) {
    ZnLogger::instance().setConsoleEnabled(false);
    ManifestState_ state;
    ZnString error;
    if (!decodeManifest({reinterpret_cast<const char*>(data), byteCount}, &state, &error)) {
        ZN_ASSERT(!error.isEmpty());
        ZN_ASSERT(state == ManifestState_());
        return 0;
    }
    ManifestState_ again;
    ZN_ASSERT(decodeManifest(encodeManifest(state).view(), &again, &error));
    ZN_ASSERT(again == state);
    return 0;
}
