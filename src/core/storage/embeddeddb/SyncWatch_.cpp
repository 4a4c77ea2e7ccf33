#include "core/storage/embeddeddb/SyncWatch_.h"

#include "core/storage/embeddeddb/RandomAccessFile_.h"

#include <utility>

namespace znEmbeddedDbDetail {

namespace {

class WatchedFile final : public ZnStorageFile {
public:
    WatchedFile(SyncWatch_& watch, ZnString path, std::unique_ptr<ZnStorageFile> file)
        : watch_(watch), path_(std::move(path)), file_(std::move(file)) {}

    int readAt(std::uint64_t offset, char* buffer, std::size_t byteCount, std::size_t* movedBytes) override {
        return file_->readAt(offset, buffer, byteCount, movedBytes);
    }
    int writeAt(std::uint64_t offset, const char* bytes, std::size_t byteCount, std::size_t* movedBytes) override {
        return file_->writeAt(offset, bytes, byteCount, movedBytes);
    }
    int truncate(std::uint64_t sizeBytes) override { return file_->truncate(sizeBytes); }
    int sync() override { return watch_.noteSync(file_->sync(), path_); }
    int syncData() override { return watch_.noteSync(file_->syncData(), path_); }
    int size(std::uint64_t* sizeBytes) override { return file_->size(sizeBytes); }
    void startWriteback(std::uint64_t offset, std::uint64_t byteCount) override {
        file_->startWriteback(offset, byteCount);
    }

private:
    SyncWatch_& watch_;
    const ZnString path_;
    const std::unique_ptr<ZnStorageFile> file_;
};

} // namespace

int SyncWatch_::open(const ZnString& path, Access access, std::unique_ptr<ZnStorageFile>* file, bool* isNew) {
    std::unique_ptr<ZnStorageFile> opened;
    const int error = files_.open(path, access, &opened, isNew);
    if (error != 0)
        return error;
    if (access.write)
        *file = std::make_unique<WatchedFile>(*this, path, std::move(opened));
    else
        *file = std::move(opened);
    return 0;
}

int SyncWatch_::noteSync(int error, const ZnString& path) {
    if (error == 0 || hasFailed())
        return error;
    const ZnMutexLocker locker(lock_);
    failWithCode("FlushFileBuffers failed", error, &failure_);
    failure_ += ": " + path;
    hasFailed_.store(true, std::memory_order_release); // pairs with hasFailed()
    return error;
}

ZnString SyncWatch_::failure() const {
    const ZnMutexLocker locker(lock_);
    return failure_;
}

void SyncWatch_::forget() {
    const ZnMutexLocker locker(lock_);
    failure_.clear();
    hasFailed_.store(false, std::memory_order_relaxed);
}

} // namespace znEmbeddedDbDetail
