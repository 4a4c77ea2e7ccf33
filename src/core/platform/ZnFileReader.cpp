#include "core/platform/ZnFileReader.h"

#include "core/fs/ZnPath.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

bool ZnFileReader::open(const ZnString& path) {
    file_.reset();
    if (path.contains(std::string_view("\0", 1)))
        return false; // the system would stop at the NUL and open another file
    // O_NONBLOCK: else the opening of a pipe waits until someone writes to it.
    ZnFileDescriptor file(::open(withForwardSlashes(path).data(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat status;
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    file_ = std::move(file);
    sizeBytes_ = static_cast<std::uint64_t>(status.st_size);
    return true;
}

std::size_t ZnFileReader::readAt(std::uint64_t offset, char* buffer, std::size_t capacity) const {
    constexpr auto kLastOffset = static_cast<std::uint64_t>(std::numeric_limits<off_t>::max());
    std::size_t byteCount = 0;
    while (byteCount < capacity && offset + byteCount <= kLastOffset && offset + byteCount >= offset) {
        const ssize_t got =
            ::pread(file_.get(), buffer + byteCount, capacity - byteCount, static_cast<off_t>(offset + byteCount));
        if (got > 0)
            byteCount += static_cast<std::size_t>(got);
        else if (got == 0 || errno != EINTR)
            break;
    }
    return byteCount;
}
