#include "core/storage/embeddeddb/WalReader_.h"

#include "core/fs/ZnPath.h"
#include "core/storage/embeddeddb/FileNames_.h"

#include <algorithm>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

constexpr std::uint64_t kWindowBytes = 256 * 1024;
// A value may be full of what looks like frames, each as long as the file: the search takes a time linear in the file's
// length nevertheless, and then gives up.
constexpr std::uint64_t kSearchFactor = 8;

} // namespace

ZnEmbeddedDbStatus WalReader_::open(const ZnString& walDir, std::uint64_t walId) {
    const ZnString path = joinPath(walDir, walFileName(walId));
    ZnString error;
    std::string_view bytes;
    if (!file_.open(path, RandomAccessFile_::Mode::ReadOnly, &error))
        return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(error)).at(path);
    if (!view_(0, std::min<std::uint64_t>(kWalHeaderBytes, file_.size()), &bytes))
        return status_;
    hasHeader_ = decodeWalHeader(bytes, &header_) && header_.walId == walId;
    goodBytes_ = hasHeader_ ? kWalHeaderBytes : 0;
    lastSequence_ = hasHeader_ ? header_.previousSequence : 0;
    return {};
}

/// The range must lie in the file. The view is good until the next call.
bool WalReader_::view_(std::uint64_t offset, std::uint64_t byteCount, std::string_view* bytes) {
    if (offset < windowOffset_ || offset + byteCount > windowOffset_ + window_.size()) {
        ZnString error;
        windowOffset_ = offset;
        window_.resize(static_cast<std::size_t>(std::min(std::max(byteCount, kWindowBytes), file_.size() - offset)));
        if (!file_.readAt(offset, window_.data(), window_.size(), &error)) {
            window_.clear();
            status_ = ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(error)).at(file_.path());
            return false;
        }
    }
    *bytes = std::string_view(window_).substr(static_cast<std::size_t>(offset - windowOffset_),
                                              static_cast<std::size_t>(byteCount));
    return true;
}

template <typename Condition>
WalReader_::Frame_ WalReader_::readFrame_(std::uint64_t offset, Condition isWanted, WalFrameHeader_* header,
                                          std::string_view* payload) {
    const std::uint64_t left = file_.size() - offset;
    std::string_view bytes;
    if (left < kWalFrameHeaderBytes)
        return Frame_::Invalid;
    if (!view_(offset, kWalFrameHeaderBytes, &bytes))
        return Frame_::Failed;
    if (!parseWalFrameHeader(bytes, header) || header->frameBytes() > left || header->firstSequence <= lastSequence_ ||
        !isWanted(*header))
        return Frame_::Invalid;
    if (!view_(offset, header->frameBytes(), &bytes))
        return Frame_::Failed;
    checkedBytes_ += bytes.size();
    if (walFrameCrc(header_.salt, bytes) != header->crc)
        return Frame_::Invalid;
    *payload = bytes.substr(kWalFrameHeaderBytes);
    WalOperationReader_ operations(*payload, header->operationCount);
    for (WalOperation_ operation; operations.next(&operation);) {
    }
    return operations.isComplete() ? Frame_::Valid : Frame_::Invalid;
}

WalReader_::Step WalReader_::next() {
    if (!hasHeader_ || goodBytes_ == file_.size())
        return hasHeader_ ? Step::End : Step::Invalid;
    switch (readFrame_(
        goodBytes_, [](const WalFrameHeader_&) { return true; }, &frame_, &payload_)) {
    case Frame_::Failed: return Step::Failed;
    case Frame_::Invalid: return Step::Invalid;
    case Frame_::Valid: break;
    }
    goodBytes_ += frame_.frameBytes();
    lastSequence_ = frame_.lastSequence();
    return Step::Frame;
}

WalReader_::Tail WalReader_::classifyTail(std::uint64_t tableSequence) {
    if (!hasHeader_)
        return file_.size() > kWalHeaderBytes || header_.walId != 0 ? Tail::Damaged : Tail::Torn;
    const std::uint64_t checkedLimit = checkedBytes_ + kSearchFactor * file_.size();
    const std::uint64_t reached = std::max(lastSequence_, tableSequence);
    const auto isCovered = [&](const WalFrameHeader_& header) { return header.firstSequence <= tableSequence + 1; };
    const auto isTelling = [&](const WalFrameHeader_& header) {
        return isCovered(header) || header.durableSequence > reached;
    };
    WalFrameHeader_ header;
    std::string_view payload;
    for (std::uint64_t offset = goodBytes_; offset < file_.size(); offset += kWalAlignment) {
        switch (readFrame_(offset, isTelling, &header, &payload)) {
        case Frame_::Failed: return Tail::Failed;
        case Frame_::Invalid: break;
        case Frame_::Valid:
            if (!isCovered(header))
                return Tail::Damaged;
            goodBytes_ = offset;
            return Tail::Covered;
        }
        if (checkedBytes_ > checkedLimit)
            return Tail::Damaged;
    }
    return Tail::Torn;
}

} // namespace znEmbeddedDbDetail
