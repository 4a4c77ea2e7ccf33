#pragma once

#include "core/storage/embeddeddb/RandomAccessFile_.h"
#include "core/storage/embeddeddb/WalFrame_.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbStatus.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace znEmbeddedDbDetail {

/// Reads a log from its first frame to the first thing that is none, and tells what that is.
///
/// Memory: one window of the file, as large as its largest frame.
/// Thread: one at a time. Owner: recovery, as a local.
class WalReader_ {
public:
    enum class Step {
        Frame,   // one was read
        End,     // the file ends with the last frame
        Invalid, // what follows is no frame, or its sequences do not rise: see classifyTail()
        Failed   // the disk: see status()
    };
    enum class Tail {
        Covered, // what is damaged is in tables: next() gives the frame behind it
        Torn,    // the end of a write that a crash cut short; nothing that was synced is behind it
        Damaged, // operations that had been synced are lost, or that cannot be ruled out
        Failed   // the disk: see status()
    };

    explicit WalReader_(ZnStorageFiles& files) : file_(files) {}

    /// Code 6 when the file cannot be read. A file without a whole valid header, or with that of another log, is Ok
    /// with hasHeader() false: next() gives Invalid.
    ZnEmbeddedDbStatus open(const ZnString& walDir, std::uint64_t walId);
    bool hasHeader() const noexcept { return hasHeader_; }
    const WalHeader_& header() const noexcept { return header_; }
    std::uint64_t fileBytes() const noexcept { return file_.size(); }

    Step next();
    /// Of the frame that next() gave; the payload is a view, good until the next call, and its operations are
    /// known to be complete.
    const WalFrameHeader_& frame() const noexcept { return frame_; }
    std::string_view payload() const noexcept { return payload_; }
    WalOperationReader_ operations() const noexcept { return {payload_, frame_.operationCount}; }
    /// Where the last good frame ends: what stands behind a torn tail is cut off here.
    std::uint64_t goodBytes() const noexcept { return goodBytes_; }
    /// Of the last good operation; the header's when there was none.
    std::uint64_t lastSequence() const noexcept { return lastSequence_; }

    /// After Step::Invalid: looks for a later frame. It goes on from there when everything in front of it, up to
    /// `tableSequence`, is in tables: frames of what has been flushed may be lost although later ones are not. Else a
    /// frame that tells of more having been synced than was read, or is in tables, means damage. The damage of the very
    /// last synced frame cannot be told from a torn tail. Without a header, the log is torn when its making was cut
    /// short, and damaged when anything stands behind the header's place, for a header is synced before the first frame
    /// is written.
    Tail classifyTail(std::uint64_t tableSequence);
    const ZnEmbeddedDbStatus& status() const noexcept { return status_; }

private:
    enum class Frame_ { Valid, Invalid, Failed };
    bool view_(std::uint64_t offset, std::uint64_t byteCount, std::string_view* bytes);
    template <typename Condition>
    Frame_ readFrame_(std::uint64_t offset, Condition isWanted, WalFrameHeader_* header, std::string_view* payload);

    RandomAccessFile_ file_;
    ZnEmbeddedDbStatus status_;
    bool hasHeader_ = false;
    WalHeader_ header_;
    WalFrameHeader_ frame_;
    std::string_view payload_;
    std::uint64_t goodBytes_ = 0;
    std::uint64_t lastSequence_ = 0;
    std::uint64_t checkedBytes_ = 0; // by checksums, in total
    std::string window_;
    std::uint64_t windowOffset_ = 0;
};

} // namespace znEmbeddedDbDetail
