#include "core/platform/ZnAppendFile.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace {

ZnString problemText(int error) {
    return ZnString(std::generic_category().message(error));
}

} // namespace

bool ZnAppendFile::open(const ZnString& path, ZnString* problem) {
    close();
    // O_NONBLOCK: a pipe without a reader is an error then, and one that is full makes no write wait.
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    const bool hasNul = path.contains(std::string_view("\0", 1)); // the system would stop there
    ZnFileDescriptor opened(hasNul ? -1 : ::open(path.data(), kFlags, S_IRUSR | S_IWUSR));
    struct stat status = {};
    if (!opened || ::fstat(opened.get(), &status) != 0) {
        *problem = hasNul           ? ZnString("No usable path")
                   : errno == ENXIO ? ZnString("Nobody reads this pipe")
                                    : problemText(errno);
        return false;
    }
    isRegular_ = S_ISREG(status.st_mode);
    openedBytes_ = isRegular_ ? static_cast<std::uint64_t>(status.st_size) : 0;
    own_ = std::move(opened);
    descriptor_ = own_.get();
    return true;
}

void ZnAppendFile::openStandardOutput() {
    close();
    descriptor_ = STDOUT_FILENO;
}

void ZnAppendFile::close() {
    own_.reset();
    descriptor_ = -1;
    isRegular_ = false;
    openedBytes_ = 0;
}

bool ZnAppendFile::isAt(const ZnString& path) const {
    struct stat mine = {};
    struct stat there = {};
    return ::fstat(descriptor_, &mine) == 0 && ::stat(path.data(), &there) == 0 && mine.st_dev == there.st_dev &&
           mine.st_ino == there.st_ino;
}

std::size_t ZnAppendFile::write(std::string_view bytes, int waitMs, ZnString* problem) {
    struct pollfd entry = {descriptor_, POLLOUT, 0};
    if (::poll(&entry, 1, waitMs) <= 0)
        return 0;
    // Other processes share standard output, so it may be in blocking mode: what is ready takes this much without.
    const std::size_t byteCount = own_ ? bytes.size() : std::min<std::size_t>(bytes.size(), PIPE_BUF);
    const ssize_t written = ::write(descriptor_, bytes.data(), byteCount);
    if (written < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
        *problem = problemText(errno);
    return static_cast<std::size_t>(std::max<ssize_t>(written, 0));
}
