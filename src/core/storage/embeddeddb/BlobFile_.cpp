#include "core/storage/embeddeddb/BlobFile_.h"

#include "core/fs/ZnPath.h"
#include "core/storage/embeddeddb/Crc32_.h"
#include "core/storage/embeddeddb/FileNames_.h"
#include "core/types/ZnAssert.h"
#include "core/types/ZnLogger.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

/// Room to read into. Its bytes are set once, before the disk's replace them: there is no array of unset bytes.
ZnByteArray bytesOfSize(std::size_t byteCount) {
    static constexpr char kFill[4096] = {};
    ZnByteArray bytes;
    bytes.reserve(byteCount);
    for (std::size_t left = byteCount; left > 0; left -= std::min(left, sizeof(kFill)))
        bytes.append(kFill, std::min(left, sizeof(kFill)));
    return bytes;
}

} // namespace

ZnEmbeddedDbStatus BlobWriter_::open(const ZnString& blobsDir, std::uint64_t blobFileId) {
    const ZnString path = joinPath(blobsDir, blobFileName(blobFileId));
    ZnString error;
    staged_.clear();
    blobFileId_ = blobFileId;
    if (file_.open(path, RandomAccessFile_::Mode::Append, &error))
        return {};
    return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(error)).at(path);
}

ZnEmbeddedDbStatus BlobWriter_::append(std::string_view value, BlobRef_* blob) {
    ZN_ASSERT(file_.isOpen());
    ZN_ASSERT(value.size() <= std::numeric_limits<std::uint32_t>::max());
    if (staged_.size() + value.size() > kStagingBytes) {
        if (ZnEmbeddedDbStatus status = writeStaged_(); !status.isOk())
            return status;
    }
    const std::uint64_t offset = file_.size() + staged_.size();
    *blob = {true, blobFileId_, offset, static_cast<std::uint32_t>(value.size()), crc32(value), 0};
    if (value.size() >= kStagingBytes)
        return write_(value); // nothing is staged, and a copy would gain nothing
    staged_.append(value);
    return {};
}

/// One sync at the end: a disk that is asked after every write takes three times as long for the whole.
ZnEmbeddedDbStatus BlobWriter_::flush() {
    ZnString error;
    ZnEmbeddedDbStatus status = writeStaged_();
    if (status.isOk() && !file_.flush(&error))
        return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(error)).at(file_.path());
    return status;
}

ZnEmbeddedDbStatus BlobWriter_::writeStaged_() {
    ZnEmbeddedDbStatus status = write_(staged_);
    staged_.clear();
    return status;
}

ZnEmbeddedDbStatus BlobWriter_::write_(std::string_view bytes) {
    ZnString error;
    const std::uint64_t offset = file_.size();
    if (file_.append(bytes.data(), bytes.size(), nullptr, &error)) {
        file_.startWriteback(offset, bytes.size());
        return {};
    }
    const ZnString message = error + ": " + file_.path();
    ZN_LOG_ERROR("zn.core.storage.znembeddeddb", "ZnEmbeddedDb::externalizeBlobValueToFile") << message;
    return {ZnEmbeddedDbStatus::IoError, "failed to externalize blob value: " + message};
}

bool blobFileHasData(ZnStorageFiles& files, const ZnString& blobsDir, std::uint64_t blobFileId) {
    RandomAccessFile_ file(files);
    return blobFileId != 0 &&
           file.open(joinPath(blobsDir, blobFileName(blobFileId)), RandomAccessFile_::Mode::ReadOnly) &&
           file.size() > 0;
}

ZnEmbeddedDbStatus readBlob(const RandomAccessFile_& file, const BlobRef_& blob, ZnByteArray* value) {
    // What only failures need is made only for them: this is all that stands between a reader and the disk.
    const auto fail = [&](ZnEmbeddedDbStatus::Code code, ZnString message) {
        return ZnEmbeddedDbStatus(code, std::move(message)).at(file.path() + " at " + ZnString::number(blob.offset));
    };
    ZnString error;
    std::uint64_t fileBytes = file.size();
    if (blob.offset + blob.size > fileBytes && !file.readSize(&fileBytes, &error)) // it may have grown since
        return fail(ZnEmbeddedDbStatus::IoError, std::move(error));
    if (blob.offset > fileBytes || blob.size > fileBytes - blob.offset) // before memory is taken for it
        return fail(ZnEmbeddedDbStatus::Corruption, "blob value beyond the end of its file");
    ZnByteArray bytes = bytesOfSize(blob.size);
    char* buffer = blob.size == 0 ? nullptr : &bytes[0];
    if (!file.readAt(blob.offset, buffer, blob.size, &error))
        return fail(ZnEmbeddedDbStatus::IoError, std::move(error));
    if (crc32(bytes.view()) != blob.crc32)
        return fail(ZnEmbeddedDbStatus::Corruption, "blob value checksum mismatch");
    *value = std::move(bytes);
    return {};
}

ZnEmbeddedDbStatus readBlobValue(ZnStorageFiles& files, const ZnString& blobsDir, ValueEntry_* entry) {
    if (entry->inlineValue || !entry->blob.valid)
        return {};
    const ZnString path = joinPath(blobsDir, blobFileName(entry->blob.blobFileId));
    RandomAccessFile_ file(files);
    ZnString error;
    if (!file.open(path, RandomAccessFile_::Mode::ReadOnly, &error))
        return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(error)).at(path);
    ZnEmbeddedDbStatus status = readBlob(file, entry->blob, &entry->value);
    if (status.isOk())
        entry->inlineValue = true;
    return status;
}

} // namespace znEmbeddedDbDetail
