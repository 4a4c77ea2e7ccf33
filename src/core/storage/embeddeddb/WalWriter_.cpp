#include "core/storage/embeddeddb/WalWriter_.h"

#include "core/fs/ZnPath.h"
#include "core/storage/embeddeddb/FileNames_.h"

#include <utility>

namespace znEmbeddedDbDetail {

namespace {

constexpr std::size_t kKeptBytes = 2 * 1024 * 1024; // of the buffer, between groups
// The next log does not begin before this one is synced: without a head start, every writer would wait for all of it.
constexpr std::uint64_t kWritebackBytes = 1024 * 1024;

} // namespace

ZnEmbeddedDbStatus WalWriter_::create(const ZnString& walDir, const WalHeader_& header) {
    ZnEmbeddedDbStatus status = prepare(walDir, header.walId);
    return status.isOk() ? begin(header) : status;
}

ZnEmbeddedDbStatus WalWriter_::prepare(const ZnString& walDir, std::uint64_t walId) {
    const ZnString path = joinPath(walDir, walFileName(walId));
    ZnString error;
    if (!file_.open(path, RandomAccessFile_::Mode::Append, &error))
        return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(error)).at(path);
    if (file_.size() == 0)
        return {};
    file_.close();
    return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, "log is there already").at(path);
}

ZnEmbeddedDbStatus WalWriter_::begin(const WalHeader_& header) {
    const std::string bytes = encodeWalHeader(header);
    ZnString error;
    salt_ = header.salt;
    if (file_.append(bytes.data(), bytes.size(), nullptr, &error) && file_.flushData(&error))
        return {};
    ZnEmbeddedDbStatus status = failed_(std::move(error));
    file_.close();
    return status;
}

ZnEmbeddedDbStatus WalWriter_::append(const std::vector<WalBatch_*>& group, std::uint64_t firstSequence,
                                      std::uint64_t durableSequence) {
    std::string_view frames;
    frames_.clear();
    for (WalBatch_* batch : group) {
        frames = batch->seal(salt_, firstSequence, durableSequence);
        firstSequence += batch->operationCount();
        if (group.size() > 1) // a single one is written from where it is
            frames_ += frames;
    }
    if (group.size() > 1)
        frames = frames_;
    ZnString error;
    const bool isWritten = file_.append(frames.data(), frames.size(), nullptr, &error);
    if (frames_.capacity() > kKeptBytes)
        std::string().swap(frames_);
    if (isWritten && file_.size() - writtenBackTo_ >= kWritebackBytes) {
        file_.startWriteback(writtenBackTo_, file_.size() - writtenBackTo_);
        writtenBackTo_ = file_.size();
    }
    return isWritten ? ZnEmbeddedDbStatus() : failed_(std::move(error));
}

ZnEmbeddedDbStatus WalWriter_::sync() {
    ZnString error;
    writtenBackTo_ = file_.size();
    return file_.flushData(&error) ? ZnEmbeddedDbStatus() : failed_(std::move(error));
}

ZnEmbeddedDbStatus WalWriter_::failed_(ZnString message) const {
    return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(message)).at(file_.path());
}

} // namespace znEmbeddedDbDetail
