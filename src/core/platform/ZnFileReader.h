#pragma once

#include "core/platform/ZnFileDescriptor.h"
#include "core/types/ZnString.h"

#include <cstddef>
#include <cstdint>

/// A regular file, open for reading at any place.
///
/// Thread: one at a time. A program started later does not inherit the open file.
class ZnFileReader {
public:
    /// Returns false, with nothing open, for what cannot be opened and for everything but a regular file. Never waits
    /// for the other end of a pipe or a device.
    bool open(const ZnString& path);
    bool isOpen() const noexcept { return static_cast<bool>(file_); }
    /// Length of the file when it was opened.
    std::uint64_t sizeBytes() const noexcept { return sizeBytes_; }
    /// Up to `capacity` bytes from `offset` on, less only at the end of the file. Returns their number; 0 at the end
    /// and on errors.
    std::size_t readAt(std::uint64_t offset, char* buffer, std::size_t capacity) const;

private:
    ZnFileDescriptor file_;
    std::uint64_t sizeBytes_ = 0;
};
