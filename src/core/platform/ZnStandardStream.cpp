#include "core/platform/ZnStandardStream.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

std::shared_ptr<ZnStandardStream> ZnStandardStream::input() {
    return open_(STDIN_FILENO, O_RDONLY);
}

std::shared_ptr<ZnStandardStream> ZnStandardStream::takeOutput() {
    std::shared_ptr<ZnStandardStream> stream = open_(STDOUT_FILENO, O_WRONLY);
    if (stream)
        ::dup2(STDERR_FILENO, STDOUT_FILENO);
    return stream;
}

std::shared_ptr<ZnStandardStream> ZnStandardStream::output() {
    return open_(STDOUT_FILENO, O_WRONLY);
}

/// O_NONBLOCK belongs to the open file, which a shell and other programs may share: so a pipe or a terminal is opened
/// anew, and a socket is asked not to block with each call.
std::shared_ptr<ZnStandardStream> ZnStandardStream::open_(int standardDescriptor, int accessMode) {
    struct stat status = {};
    if (::fstat(standardDescriptor, &status) != 0)
        return nullptr;
    Way_ way = S_ISSOCK(status.st_mode) ? Way_::Socket : Way_::AlwaysReady;
    ZnFileDescriptor descriptor;
    if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode)) {
        const std::string path = "/proc/self/fd/" + std::to_string(standardDescriptor);
        descriptor = ZnFileDescriptor(::open(path.c_str(), accessMode | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
        way = descriptor ? Way_::NonBlocking : Way_::AskFirst; // it may belong to another user
    }
    if (!descriptor)
        descriptor = ZnFileDescriptor(::fcntl(standardDescriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (!descriptor)
        return nullptr;
    return std::shared_ptr<ZnStandardStream>(new ZnStandardStream(std::move(descriptor), way));
}

ZnStandardStream::Transfer ZnStandardStream::read(char* buffer, std::size_t capacity) {
    if (way_ == Way_::AskFirst && !isReady_(POLLIN))
        return {0, true, false};
    const auto readOnce = [&] {
        return way_ == Way_::Socket ? ::recv(descriptor(), buffer, capacity, MSG_DONTWAIT)
                                    : ::read(descriptor(), buffer, capacity);
    };
    ssize_t byteCount = readOnce();
    while (byteCount < 0 && errno == EINTR)
        byteCount = readOnce();
    return resultOf_(byteCount, true);
}

ZnStandardStream::Transfer ZnStandardStream::write(const char* bytes, std::size_t byteCount) {
    if (way_ == Way_::AskFirst) {
        if (!isReady_(POLLOUT))
            return {0, true, false};
        byteCount = std::min<std::size_t>(byteCount, PIPE_BUF); // so many never block when the pipe is ready
    }
    const auto writeOnce = [&] {
        return way_ == Way_::Socket ? ::send(descriptor(), bytes, byteCount, MSG_DONTWAIT | MSG_NOSIGNAL)
                                    : ::write(descriptor(), bytes, byteCount);
    };
    ssize_t written = writeOnce();
    while (written < 0 && errno == EINTR)
        written = writeOnce();
    return resultOf_(written, false);
}

bool ZnStandardStream::isReady_(short event) const {
    struct pollfd entry = {descriptor(), event, 0};
    return ::poll(&entry, 1, 0) > 0;
}

bool ZnStandardStream::isAbandoned() const {
    struct pollfd entry = {descriptor(), 0, 0}; // errors and hang-ups are always told
    return ::poll(&entry, 1, 0) > 0;
}

ZnStandardStream::Transfer ZnStandardStream::resultOf_(long long byteCount, bool isInput) {
    if (byteCount < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return {0, true, false};
    if (byteCount < 0 || (byteCount == 0 && isInput))
        return {0, false, true};
    return {static_cast<std::size_t>(byteCount), false, false};
}

bool ZnStandardStream::isWatchable() const {
    const ZnFileDescriptor epoll(::epoll_create1(EPOLL_CLOEXEC));
    struct epoll_event event = {};
    return epoll && ::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, descriptor(), &event) == 0;
}

bool ZnStandardStream::noteReady(std::uint32_t readiness) {
    return readiness != 0;
}
