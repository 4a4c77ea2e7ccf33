#include "core/platform/ZnFileDescriptor.h"
#include "core/platform/ZnStorageFiles.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <limits>
#include <string_view>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace {

constexpr int kCommonFlags = O_CLOEXEC | O_NOCTTY | O_NONBLOCK; // opening a pipe must not stop the thread

int resultOf(int returned) {
    return returned == 0 ? 0 : errno;
}

template <typename Call>
auto uninterrupted(Call call) {
    auto returned = call();
    while (returned == -1 && errno == EINTR)
        returned = call();
    return returned;
}

/// The path as the system takes it; the empty one, which every call refuses, for one with a NUL byte, at which the
/// system would stop.
const char* systemPath(const ZnString& path) {
    return path.contains(std::string_view("\0", 1)) ? "" : path.data();
}

bool isInRange(std::uint64_t offset, std::size_t byteCount) {
    constexpr auto kLastOffset = static_cast<std::uint64_t>(std::numeric_limits<off_t>::max());
    return offset <= kLastOffset && byteCount <= kLastOffset - offset;
}

int statusOf(int descriptor, struct stat* status) {
    if (::fstat(descriptor, status) != 0)
        return errno;
    if (S_ISDIR(status->st_mode))
        return EISDIR;
    return S_ISREG(status->st_mode) ? 0 : EINVAL;
}

class LinuxStorageFile final : public ZnStorageFile {
public:
    explicit LinuxStorageFile(ZnFileDescriptor file) noexcept : file_(std::move(file)) {}

    int readAt(std::uint64_t offset, char* buffer, std::size_t byteCount, std::size_t* movedBytes) override {
        if (!isInRange(offset, byteCount))
            return EINVAL;
        const auto at = static_cast<off_t>(offset);
        return moved_(uninterrupted([&] { return ::pread(file_.get(), buffer, byteCount, at); }), movedBytes);
    }
    int writeAt(std::uint64_t offset, const char* bytes, std::size_t byteCount, std::size_t* movedBytes) override {
        if (!isInRange(offset, byteCount))
            return EFBIG;
        const auto at = static_cast<off_t>(offset);
        return moved_(uninterrupted([&] { return ::pwrite(file_.get(), bytes, byteCount, at); }), movedBytes);
    }
    int truncate(std::uint64_t sizeBytes) override {
        if (!isInRange(sizeBytes, 0))
            return EFBIG;
        return resultOf(uninterrupted([&] { return ::ftruncate(file_.get(), static_cast<off_t>(sizeBytes)); }));
    }
    int sync() override {
        return resultOf(uninterrupted([&] { return ::fsync(file_.get()); }));
    }
    int syncData() override {
        return resultOf(uninterrupted([&] { return ::fdatasync(file_.get()); }));
    }
    int size(std::uint64_t* sizeBytes) override {
        struct stat status;
        const int error = statusOf(file_.get(), &status);
        if (error == 0)
            *sizeBytes = static_cast<std::uint64_t>(status.st_size);
        return error;
    }

    void startWriteback(std::uint64_t offset, std::uint64_t byteCount) override {
        ::sync_file_range(file_.get(), static_cast<off64_t>(offset), static_cast<off64_t>(byteCount),
                          SYNC_FILE_RANGE_WRITE);
    }

private:
    static int moved_(ssize_t returned, std::size_t* movedBytes) {
        if (returned < 0)
            return errno;
        *movedBytes = static_cast<std::size_t>(returned);
        return 0;
    }

    ZnFileDescriptor file_;
};

class LinuxStorageMapping final : public ZnStorageMapping {
public:
    LinuxStorageMapping(void* at, std::size_t sizeBytes) noexcept : at_(at), sizeBytes_(sizeBytes) {}
    ~LinuxStorageMapping() override { ::munmap(at_, sizeBytes_); }
    LinuxStorageMapping(const LinuxStorageMapping&) = delete;
    LinuxStorageMapping& operator=(const LinuxStorageMapping&) = delete;
    const char* data() const override { return static_cast<const char*>(at_); }

private:
    void* at_;
    std::size_t sizeBytes_;
};

class LinuxStorageLock final : public ZnStorageLock {
public:
    explicit LinuxStorageLock(ZnFileDescriptor file) noexcept : file_(std::move(file)) {}

private:
    ZnFileDescriptor file_; // closing it releases the lock
};

struct CloseDirectory {
    void operator()(DIR* directory) const noexcept { ::closedir(directory); }
};

class LinuxStorageFiles final : public ZnStorageFiles {
public:
    int open(const ZnString& path, Access access, std::unique_ptr<ZnStorageFile>* file, bool* isNew) override;
    int map(const ZnString& path, std::unique_ptr<ZnStorageMapping>* mapping, std::uint64_t* sizeBytes) override;
    int rename(const ZnString& from, const ZnString& to) override {
        return resultOf(::rename(systemPath(from), systemPath(to)));
    }
    int remove(const ZnString& path) override { return resultOf(::unlink(systemPath(path))); }
    int makePath(const ZnString& path) override;
    int syncDirectory(const ZnString& path) override;
    int list(const ZnString& path, std::vector<ZnString>* names) override;
    int lock(const ZnString& path, std::unique_ptr<ZnStorageLock>* lock) override;
};

/// Opens what is there, or else makes it, so that `*isNew` is certain also when two make the same file.
int openOrCreate(const char* path, int flags, bool mayCreate, ZnFileDescriptor* file, bool* isNew) {
    for (;;) {
        *isNew = false;
        *file = ZnFileDescriptor(uninterrupted([&] { return ::open(path, flags); }));
        if (*file || errno != ENOENT || !mayCreate)
            return *file ? 0 : errno;
        *isNew = true;
        *file = ZnFileDescriptor(uninterrupted([&] { return ::open(path, flags | O_CREAT | O_EXCL, 0666); }));
        if (*file || errno != EEXIST)
            return *file ? 0 : errno;
        struct stat status; // a link that leads nowhere is there for the second call and not for the first
        if (::stat(path, &status) != 0)
            return ENOENT;
    }
}

int LinuxStorageFiles::open(const ZnString& path, Access access, std::unique_ptr<ZnStorageFile>* file, bool* isNew) {
    const int flags = kCommonFlags | (access.write ? O_RDWR : O_RDONLY) | (access.syncEach ? O_DSYNC : 0);
    ZnFileDescriptor opened;
    bool made = false;
    struct stat status;
    int error = openOrCreate(systemPath(path), flags, access.write && access.create, &opened, &made);
    if (error == 0)
        error = statusOf(opened.get(), &status);
    if (error == 0 && access.truncate) // only now: it is a regular file
        error = resultOf(::ftruncate(opened.get(), 0));
    if (error != 0)
        return error;
    *file = std::make_unique<LinuxStorageFile>(std::move(opened));
    *isNew = made;
    return 0;
}

int LinuxStorageFiles::map(const ZnString& path, std::unique_ptr<ZnStorageMapping>* mapping, std::uint64_t* sizeBytes) {
    const ZnFileDescriptor file(uninterrupted([&] { return ::open(systemPath(path), O_RDONLY | kCommonFlags); }));
    struct stat status;
    if (!file)
        return errno;
    if (const int error = statusOf(file.get(), &status); error != 0)
        return error;
    *sizeBytes = static_cast<std::uint64_t>(status.st_size);
    if (status.st_size == 0)
        return EINVAL;
    const auto byteCount = static_cast<std::size_t>(status.st_size);
    void* at = ::mmap(nullptr, byteCount, PROT_READ, MAP_SHARED, file.get(), 0);
    if (at == MAP_FAILED)
        return errno;
    *mapping = std::make_unique<LinuxStorageMapping>(at, byteCount);
    return 0;
}

int LinuxStorageFiles::makePath(const ZnString& path) {
    const std::string_view whole = path.view();
    int error = 0;
    for (std::size_t end = 0; end < whole.size();) {
        end = std::min(whole.find('/', end + 1), whole.size());
        const ZnString piece(whole.substr(0, end));
        error = ::mkdir(systemPath(piece), 0777) == 0 ? 0 : errno; // those above may stand and yet be refused
    }
    struct stat status;
    if (::stat(systemPath(path), &status) != 0)
        return error != 0 ? error : errno;
    return S_ISDIR(status.st_mode) ? 0 : ENOTDIR;
}

int LinuxStorageFiles::syncDirectory(const ZnString& path) {
    const ZnFileDescriptor directory(
        uninterrupted([&] { return ::open(systemPath(path), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (!directory)
        return errno;
    const int error = resultOf(uninterrupted([&] { return ::fsync(directory.get()); }));
    return error == EINVAL || error == ENOTSUP ? 0 : error;
}

int LinuxStorageFiles::list(const ZnString& path, std::vector<ZnString>* names) {
    const std::unique_ptr<DIR, CloseDirectory> directory(::opendir(systemPath(path)));
    if (!directory)
        return errno;
    std::vector<ZnString> found;
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(directory.get());
        if (entry == nullptr)
            break;
        struct stat status;
        const bool isDirectory =
            entry->d_type == DT_DIR ||
            (entry->d_type == DT_UNKNOWN && ::fstatat(::dirfd(directory.get()), entry->d_name, &status, 0) == 0 &&
             S_ISDIR(status.st_mode));
        if (!isDirectory)
            found.push_back(entry->d_name);
    }
    if (errno != 0)
        return errno;
    *names = std::move(found);
    return 0;
}

int LinuxStorageFiles::lock(const ZnString& path, std::unique_ptr<ZnStorageLock>* lock) {
    ZnFileDescriptor file(
        uninterrupted([&] { return ::open(systemPath(path), O_RDWR | O_CREAT | kCommonFlags, 0666); }));
    if (!file)
        return errno;
    if (uninterrupted([&] { return ::flock(file.get(), LOCK_EX | LOCK_NB); }) != 0)
        return errno;
    *lock = std::make_unique<LinuxStorageLock>(std::move(file));
    return 0;
}

} // namespace

ZnStorageFiles& znStorageFiles() {
    static LinuxStorageFiles instance;
    return instance;
}

ZnString systemErrorText(int error) {
    return ZnString(std::generic_category().message(error));
}
