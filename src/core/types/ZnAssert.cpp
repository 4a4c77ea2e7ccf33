#include "core/types/ZnAssert.h"

#include <cstdio>
#include <cstdlib>

void zn::detail::assertFailed(const char* condition, const char* file, int line) noexcept {
    // Straight to the stream: the log's own state may be what is broken.
    std::fprintf(stderr, "assertion failed: %s at %s:%d\n", condition, file, line);
    std::fflush(stderr);
    std::abort();
}
