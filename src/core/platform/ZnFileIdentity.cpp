#include "core/platform/ZnFileIdentity.h"

#include <ctime>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

long long nanoseconds(const timespec& time) {
    return static_cast<long long>(time.tv_sec) * 1'000'000'000LL + time.tv_nsec;
}

ZnFileIdentity::Kind kindOf(mode_t mode) {
    if (S_ISREG(mode))
        return ZnFileIdentity::Kind::File;
    if (S_ISFIFO(mode) || S_ISSOCK(mode))
        return ZnFileIdentity::Kind::Pipe;
    return S_ISDIR(mode) ? ZnFileIdentity::Kind::Directory : ZnFileIdentity::Kind::Other;
}

} // namespace

ZnFileIdentity ZnFileIdentity::of(const ZnString& path) {
    ZnFileIdentity identity;
    struct stat status = {};
    if (::stat(path.data(), &status) != 0)
        return identity;
    identity.kind = kindOf(status.st_mode);
    identity.device = status.st_dev;
    identity.inode = status.st_ino;
    identity.sizeBytes = static_cast<unsigned long long>(status.st_size);
    identity.isReadableByOthers = (status.st_mode & (S_IRGRP | S_IROTH)) != 0;
    identity.writeNs = nanoseconds(status.st_mtim);
    identity.statusNs = nanoseconds(status.st_ctim);
    return identity;
}

long long ZnFileIdentity::stampNowNs() {
    timespec now = {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return nanoseconds(now);
}

ZnString programDirectory() {
    char buffer[PATH_MAX];
    const ssize_t byteCount = ::readlink("/proc/self/exe", buffer, sizeof(buffer));
    if (byteCount <= 0)
        return {};
    const std::string_view path(buffer, static_cast<std::size_t>(byteCount));
    return ZnString(path.substr(0, path.rfind('/') + 1));
}
