#include "core/platform/ZnFileDescriptor.h"

#include <cerrno>
#include <unistd.h>

void ZnFileDescriptor::reset() noexcept {
    if (descriptor_ < 0)
        return;
    const int savedErrno = errno; // callers report the error that made them close
    ::close(std::exchange(descriptor_, -1));
    errno = savedErrno;
}
