#pragma once

#include "core/storage/embeddeddb/RandomAccessFile_.h"
#include "core/storage/embeddeddb/StoredValue_.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbStatus.h"
#include "core/types/ZnByteArray.h"

#include <cstdint>
#include <string>
#include <string_view>

// A blob file is values back to back and nothing else; all that is known of a value stands in its BlobRef_.
namespace znEmbeddedDbDetail {

/// Appends values to one blob file.
///
/// Values are gathered up to 1 MiB and then written at once. A table that refers to them may get its name only after
/// flush() was Ok.
/// Thread: one at a time.
class BlobWriter_ {
public:
    static constexpr std::size_t kStagingBytes = 1024 * 1024;

    explicit BlobWriter_(ZnStorageFiles& files) : file_(files) {}

    ZnEmbeddedDbStatus open(const ZnString& blobsDir, std::uint64_t blobFileId);
    bool isOpen() const noexcept { return file_.isOpen(); }
    /// `*blob` refers to the value from the next flush() on.
    ZnEmbeddedDbStatus append(std::string_view value, BlobRef_* blob);
    /// Brings everything to stable storage. After a failure nothing that was appended since the last flush is there.
    ZnEmbeddedDbStatus flush();

private:
    ZnEmbeddedDbStatus writeStaged_();
    ZnEmbeddedDbStatus write_(std::string_view bytes);

    RandomAccessFile_ file_;
    std::uint64_t blobFileId_ = 0;
    std::string staged_; // belongs behind the end of the file
};

/// Whether the file of that id is there and not empty.
bool blobFileHasData(ZnStorageFiles& files, const ZnString& blobsDir, std::uint64_t blobFileId);

/// Reads a value through an open blob file. Code 6 when the disk fails, code 7 when the file does not hold the value;
/// the message names file and offset.
ZnEmbeddedDbStatus readBlob(const RandomAccessFile_& file, const BlobRef_& blob, ZnByteArray* value);
/// Fetches the value of an entry whose value lies in a blob file; other entries are left alone.
ZnEmbeddedDbStatus readBlobValue(ZnStorageFiles& files, const ZnString& blobsDir, ValueEntry_* entry);

} // namespace znEmbeddedDbDetail
