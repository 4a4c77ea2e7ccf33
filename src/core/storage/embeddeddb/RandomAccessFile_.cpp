#include "core/storage/embeddeddb/RandomAccessFile_.h"

#include "core/fs/ZnPath.h"
#include "core/platform/ZnDirPlatform.h"

#include <algorithm>

namespace znEmbeddedDbDetail {

namespace {

using Mode = RandomAccessFile_::Mode;

constexpr std::size_t kTransferBytes = 1024 * 1024; // of one system call

ZnStorageFiles::Access accessOf(Mode mode) {
    const bool writes = mode != Mode::ReadOnly;
    return {writes, writes, mode == Mode::Truncate, mode == Mode::AppendWriteThrough};
}

/// Calls `transfer(offset in the whole, byte count, moved)` until everything has moved.
template <typename Transfer>
bool transferAll(std::size_t byteCount, const char* failedText, const char* shortText, ZnString* errorOut,
                 Transfer transfer) {
    for (std::size_t done = 0; done < byteCount;) {
        const std::size_t asked = std::min(byteCount - done, kTransferBytes);
        std::size_t moved = 0;
        if (const int error = transfer(done, asked, &moved); error != 0)
            return failWithCode(failedText, error, errorOut);
        if (moved < asked)
            return failWithCode(shortText, 0, errorOut);
        done += asked;
    }
    return true;
}

} // namespace

bool failWithCode(const char* message, int error, ZnString* errorOut) {
    if (errorOut == nullptr)
        return false;
    *errorOut = ZnString(message) + ": " + ZnString::number(error);
    if (error != 0)
        *errorOut += " (" + systemErrorText(error) + ")";
    return false;
}

bool RandomAccessFile_::open(const ZnString& path, Mode mode, ZnString* errorOut) {
    close();
    mode_ = mode;
    path_ = znDirPlatform()->normalizePath(path);
    if (open_(errorOut))
        return true;
    close();
    return false;
}

bool RandomAccessFile_::open_(ZnString* errorOut) {
    const ZnString parent = parentPath(path_);
    if (mode_ != Mode::ReadOnly && !parent.isEmpty())
        files_->makePath(parent); // if that fails, the open below tells why
    bool isNew = false;
    int error = files_->open(path_, accessOf(mode_), &file_, &isNew);
    if (error == 0)
        error = file_->size(&size_);
    if (error == 0 && isNew && mode_ != Mode::Truncate) {
        error = file_->sync();
        if (error == 0 && !parent.isEmpty())
            error = files_->syncDirectory(parent);
    }
    return error == 0 || failWithCode("CreateFileW failed", error, errorOut);
}

void RandomAccessFile_::close() noexcept {
    file_.reset();
    path_.clear();
    size_ = 0;
    mode_ = Mode::ReadOnly;
    syncError_ = 0;
    refusesAppend_ = false;
}

bool RandomAccessFile_::readSize(std::uint64_t* sizeBytes, ZnString* errorOut) const {
    const int error = isOpen() ? file_->size(sizeBytes) : 0;
    return (isOpen() && error == 0) || failWithCode("GetFileSizeEx failed", error, errorOut);
}

bool RandomAccessFile_::readAt(std::uint64_t offset, char* buffer, std::size_t byteCount, ZnString* errorOut) const {
    if (!isOpen())
        return failWithCode("readAt on closed file", 0, errorOut);
    return transferAll(byteCount, "ReadFile failed", "short read", errorOut,
                       [&](std::size_t done, std::size_t asked, std::size_t* moved) {
                           return file_->readAt(offset + done, buffer + done, asked, moved);
                       });
}

bool RandomAccessFile_::writeAt(std::uint64_t offset, const char* bytes, std::size_t byteCount, ZnString* errorOut) {
    if (!isOpen())
        return failWithCode("writeAt on closed file", 0, errorOut);
    const bool isWritten = transferAll(byteCount, "WriteFile failed", "short write", errorOut,
                                       [&](std::size_t done, std::size_t asked, std::size_t* moved) {
                                           return file_->writeAt(offset + done, bytes + done, asked, moved);
                                       });
    if (isWritten)
        size_ = std::max<std::uint64_t>(size_, offset + byteCount);
    return isWritten;
}

bool RandomAccessFile_::append(const char* bytes, std::size_t byteCount, std::uint64_t* offsetOut, ZnString* errorOut) {
    if (isOpen() && !canAppend())
        return failWithCode("append behind a failure", syncError_, errorOut);
    const std::uint64_t offset = size_;
    if (!appends_()) {
        if (!writeAt(offset, bytes, byteCount, errorOut))
            return false;
    } else {
        if (!isOpen())
            return failWithCode("append on closed file", 0, errorOut);
        const bool isWritten = transferAll(byteCount, "WriteFile append failed", "short append", errorOut,
                                           [&](std::size_t done, std::size_t asked, std::size_t* moved) {
                                               return file_->writeAt(offset + done, bytes + done, asked, moved);
                                           });
        if (!isWritten) {
            refusesAppend_ = file_->truncate(offset) != 0;
            return false;
        }
        size_ = offset + byteCount;
    }
    if (offsetOut != nullptr)
        *offsetOut = offset;
    return true;
}

bool RandomAccessFile_::truncate(std::uint64_t sizeBytes, ZnString* errorOut) {
    if (!isOpen())
        return failWithCode("truncate on closed file", 0, errorOut);
    if (const int error = file_->truncate(sizeBytes); error != 0)
        return failWithCode("truncate failed", error, errorOut);
    size_ = sizeBytes;
    return true;
}

bool RandomAccessFile_::flush(ZnString* errorOut) {
    return isOpen() && sync_(false, errorOut);
}

bool RandomAccessFile_::flushData(ZnString* errorOut) {
    return sync_(true, errorOut);
}

bool RandomAccessFile_::sync_(bool dataOnly, ZnString* errorOut) {
    if (!isOpen())
        return failWithCode("flushData on closed file", 0, errorOut);
    if (writeThrough())
        return true;
    if (syncError_ == 0)
        syncError_ = dataOnly ? file_->syncData() : file_->sync();
    return syncError_ == 0 || failWithCode("FlushFileBuffers failed", syncError_, errorOut);
}

} // namespace znEmbeddedDbDetail
