#pragma once

#include "core/platform/ZnFileDescriptor.h"
#include "core/types/ZnString.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

/// What text is appended to: a file, a pipe, a device, or standard output.
///
/// Only a disk can make a write wait for longer than it may; a pipe that nobody reads does not.
/// Thread: one at a time. A program started later does not inherit the open file.
class ZnAppendFile {
public:
    ZnAppendFile() = default;
    ZnAppendFile(const ZnAppendFile&) = delete;
    ZnAppendFile& operator=(const ZnAppendFile&) = delete;
    ~ZnAppendFile() { close(); }

    /// Makes a missing file, for its owner alone. A pipe needs somebody who reads it. False, with the system's reason
    /// and nothing open, when it cannot be opened.
    bool open(const ZnString& path, ZnString* problem);
    /// Standard output, whatever that is at the time of each write. It stays open after close().
    void openStandardOutput();
    void close();
    bool isOpen() const noexcept { return descriptor_ >= 0; }
    /// Whether `path` leads to what is open: not when it was moved or removed.
    bool isAt(const ZnString& path) const;

    bool isRegular() const noexcept { return isRegular_; }
    /// Of a regular file, when it was opened.
    std::uint64_t openedBytes() const noexcept { return openedBytes_; }

    /// Writes what is taken within `waitMs`, and returns the number of bytes. `*problem` has the system's reason when
    /// nothing will be taken in this state of things; it stays empty when the time is up.
    std::size_t write(std::string_view bytes, int waitMs, ZnString* problem);

private:
    ZnFileDescriptor own_; // empty for standard output
    int descriptor_ = -1;
    bool isRegular_ = false;
    std::uint64_t openedBytes_ = 0;
};
