#include "core/platform/ZnSharedMemory.h"

#include "core/platform/ZnMonotonicClock.h"
#include "core/platform/ZnProcess.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr const char* kDirectory = "/dev/shm"; // where the C library keeps the names
constexpr auto kPause = std::chrono::microseconds(100);

bool lock(const ZnFileDescriptor& descriptor, int kind) {
    int result = -1;
    do {
        result = ::flock(descriptor.get(), kind | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

/// Why the file is none that this user's processes made; null when it may be one.
const char* refusal(const struct stat& status, std::size_t byteCount) {
    if (!S_ISREG(status.st_mode))
        return "is not a regular file";
    if (status.st_uid != ZnProcess::userId())
        return "belongs to another user";
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        return "is open to other users";
    const auto size = static_cast<std::size_t>(status.st_size);
    return size == 0 || size == byteCount ? nullptr : "has another size";
}

ZnString systemReason(const char* step) {
    return ZnString(step) + ": " + std::strerror(errno);
}

} // namespace

ZnSharedMemory::ZnSharedMemory(ZnString name, std::size_t byteCount)
    : name_(std::move(name)), byteCount_(byteCount), forkCount_(ZnProcess::forkCount()) {}

ZnSharedMemory::~ZnSharedMemory() {
    if (data_ != nullptr)
        ::munmap(data_, byteCount_);
    if (isOurs_ && forkCount_ == ZnProcess::forkCount())
        removeNameIfLast_();
}

std::unique_ptr<ZnSharedMemory> ZnSharedMemory::open(const ZnString& name, std::size_t byteCount,
                                                     const Content& content, ZnString* errorText) {
    const long long deadlineNs = monotonicNowNs() + kOpenWaitMs * 1000000LL;
    ZnString reason;
    do {
        std::unique_ptr<ZnSharedMemory> memory(new ZnSharedMemory(name, byteCount));
        if (memory->tryOpen_(content, &reason))
            return memory;
        if (!reason.isEmpty())
            break;
        std::this_thread::sleep_for(kPause);
    } while (monotonicNowNs() < deadlineNs);
    *errorText = name + " " + (reason.isEmpty() ? ZnString("is being made by a process that stands still") : reason);
    return nullptr;
}

/// False without a reason: another process is just making the object or taking it away.
bool ZnSharedMemory::tryOpen_(const Content& content, ZnString* errorText) {
    // Never waits, not even where the name is a pipe.
    descriptor_ = ZnFileDescriptor(::shm_open(name_.data(), O_RDWR | O_CREAT | O_NONBLOCK, S_IRUSR | S_IWUSR));
    struct stat status = {};
    if (!descriptor_ || ::fstat(descriptor_.get(), &status) != 0)
        return *errorText = systemReason("cannot be opened"), false;
    if (const char* reason = refusal(status, byteCount_))
        return *errorText = reason, false;
    isOurs_ = true;
    const bool isAlone = lock(descriptor_, LOCK_EX);
    if ((!isAlone && !lock(descriptor_, LOCK_SH)) || !isNamed_() || !map_(isAlone, errorText))
        return false;
    if (!isAlone)
        return content.isUsable == nullptr || content.isUsable(data_);
    if (content.takeOver != nullptr)
        content.takeOver(data_);
    // Between the two locks another process may have been alone, and may have taken the name away.
    return lock(descriptor_, LOCK_SH) && isNamed_();
}

bool ZnSharedMemory::map_(bool isAlone, ZnString* errorText) {
    if (isAlone && ::ftruncate(descriptor_.get(), static_cast<off_t>(byteCount_)) != 0)
        return *errorText = systemReason("cannot be made"), false;
    struct stat status = {};
    if (::fstat(descriptor_.get(), &status) != 0 || static_cast<std::size_t>(status.st_size) != byteCount_)
        return false;
    void* data = ::mmap(nullptr, byteCount_, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor_.get(), 0);
    if (data == MAP_FAILED)
        return *errorText = systemReason("cannot be mapped"), false;
    data_ = data;
    return true;
}

bool ZnSharedMemory::isNamed_() const {
    struct stat status = {};
    return ::fstat(descriptor_.get(), &status) == 0 && status.st_nlink > 0;
}

void ZnSharedMemory::removeNameIfLast_() {
    // Alone and still named: the name leads here, for nobody takes it away without this lock.
    if (lock(descriptor_, LOCK_EX) && isNamed_())
        ::shm_unlink(name_.data());
}

void ZnSharedMemory::removeUnused(const ZnString& prefix, const ZnString& suffix) {
    DIR* directory = ::opendir(kDirectory);
    if (directory == nullptr)
        return;
    while (const dirent* entry = ::readdir(directory)) {
        const ZnString name = ZnString("/") + entry->d_name;
        struct stat status = {};
        if (!name.startsWith(prefix.view()) || !name.endsWith(suffix.view()))
            continue;
        ZnSharedMemory unused(name, 0); // its end takes the name away
        unused.descriptor_ = ZnFileDescriptor(::shm_open(name.data(), O_RDWR | O_NONBLOCK, 0));
        unused.isOurs_ = unused.descriptor_ && ::fstat(unused.descriptor_.get(), &status) == 0 &&
                         refusal(status, static_cast<std::size_t>(status.st_size)) == nullptr;
    }
    ::closedir(directory);
}
