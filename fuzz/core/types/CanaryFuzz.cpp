// Holds a planted fault, which its one saved input triggers. This target must fail: that shows that the
// replay, and the fuzzer behind it, notice faults at all.

#include "core/types/ZnAssert.h"

#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t byteCount) {
    const std::string_view text(reinterpret_cast<const char*>(data), byteCount);
    ZN_ASSERT(!text.starts_with("canary"));
    return 0;
}
