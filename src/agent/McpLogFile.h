#pragma once

#include "core/platform/ZnAppendFile.h"
#include "core/types/ZnString.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

/// A file of lines that is replaced when it is full: PATH becomes PATH.1, and that PATH.2. Also a pipe, a device, or
/// "-" for standard output, which are never full.
///
/// A file that was moved or removed is made again. However often that happens, every file holds whole lines.
/// Thread: one at a time.
class McpLogFile {
public:
    static constexpr int kMaxOldFiles = 3;

    /// A regular file has at most `maxBytes`, unless one line alone has more.
    McpLogFile(ZnString path, std::uint64_t maxBytes) : path_(std::move(path)), maxBytes_(maxBytes) {}

    const ZnString& path() const noexcept { return path_; }
    bool open(ZnString* problem);

    /// Writes lines from `text`, which ends with a line, beginning at `*at`; sets that to where to go on, which is the
    /// beginning of a line again when a new file had to be opened. False, with the system's reason, when that fails as
    /// things are. Waits for `waitMs` at most, but for a disk.
    bool write(std::string_view text, std::size_t* at, int waitMs, ZnString* problem);

private:
    bool isStandardOutput_() const { return path_ == "-"; }
    bool prepare_(std::string_view text, std::size_t* at, ZnString* problem);
    bool rotate_(ZnString* problem);

    const ZnString path_;
    const std::uint64_t maxBytes_;
    ZnAppendFile file_;
    std::uint64_t sizeBytes_ = 0;   // of a regular file
    std::uint64_t rotateBytes_ = 0; // at which size the file is full; more than maxBytes_ when it could not be renamed
};
