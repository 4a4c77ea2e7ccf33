#include "core/storage/embeddeddb/BlobEpoch_.h"

#include "core/fs/ZnPath.h"
#include "core/storage/embeddeddb/FileNames_.h"

namespace znEmbeddedDbDetail {

BlobEpoch_::~BlobEpoch_() {
    for (const std::uint64_t id : retired_) {
        blobs_->forget(id); // an open descriptor would keep the space
        files_.remove(joinPath(blobsDir_, blobFileName(id)));
    }
}

} // namespace znEmbeddedDbDetail
