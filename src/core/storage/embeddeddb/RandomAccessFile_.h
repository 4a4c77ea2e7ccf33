#pragma once

#include "core/platform/ZnStorageFiles.h"
#include "core/types/ZnString.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace znEmbeddedDbDetail {

/// Positional reading and writing of one file of the store.
///
/// Reads, writes and appends move all that they were asked to or fail; a short transfer is a failure and is not
/// repeated. Every operation gives false for a failure, with the reason in `*errorOut` unless that is null.
/// Thread: one at a time, except readAt(), which any number may call.
/// Owner: moved, never shared; the file is closed with the object.
/// Invariant: size() is the length of the file, as long as nobody else changes it.
class RandomAccessFile_ {
public:
    enum class Mode : std::int32_t {
        ReadOnly = 0,           // of a file that is there
        ReadWrite = 1,          // makes the file if there is none
        Truncate = 2,           // makes the file, or cuts it to nothing
        AppendWriteThrough = 3, // as Append, and what was appended is on stable storage when append() returns
        Append = 4              // makes the file if there is none; append() writes behind its end
    };

    explicit RandomAccessFile_(ZnStorageFiles& files) noexcept : files_(&files) {}

    /// Makes the directories above the file unless it is only to be read. When it made the file, other than for
    /// Truncate (whose files get their final name later), the name is on stable storage as soon as this returns.
    bool open(const ZnString& path, Mode mode, ZnString* errorOut = nullptr);
    void close() noexcept;
    bool isOpen() const noexcept { return file_ != nullptr; }

    /// False, with "short read", at the end of the file.
    bool readAt(std::uint64_t offset, char* buffer, std::size_t byteCount, ZnString* errorOut = nullptr) const;
    bool writeAt(std::uint64_t offset, const char* bytes, std::size_t byteCount, ZnString* errorOut = nullptr);
    /// Writes behind the end and tells where that was. After a failure the file is as before: what a failed append of
    /// the two appending modes left is cut off, and where that fails too, this object appends no more.
    bool append(const char* bytes, std::size_t byteCount, std::uint64_t* offsetOut = nullptr,
                ZnString* errorOut = nullptr);
    /// False after a failed append that could not be cut off, and after a failed flush.
    bool canAppend() const noexcept { return isOpen() && !refusesAppend_ && syncError_ == 0; }
    bool truncate(std::uint64_t sizeBytes, ZnString* errorOut = nullptr);
    /// Brings the file to stable storage; nothing to do for AppendWriteThrough. After one failure every later call
    /// fails too: the system may have given up what it could not write, and would report success the next time. Of a
    /// closed file it is false without a reason.
    bool flush(ZnString* errorOut = nullptr);
    /// As flush(), without attributes that reading the content back does not take.
    bool flushData(ZnString* errorOut = nullptr);

    /// A hint to begin with what flush() will wait for.
    void startWriteback(std::uint64_t offset, std::uint64_t byteCount) {
        if (isOpen())
            file_->startWriteback(offset, byteCount);
    }

    Mode mode() const noexcept { return mode_; }
    const ZnString& path() const noexcept { return path_; }
    std::uint64_t size() const noexcept { return size_; }
    /// Asks the system, for a file that another object may have made longer.
    bool readSize(std::uint64_t* sizeBytes, ZnString* errorOut = nullptr) const;
    bool writeThrough() const noexcept { return mode_ == Mode::AppendWriteThrough; }

private:
    bool open_(ZnString* errorOut);
    bool sync_(bool dataOnly, ZnString* errorOut);
    bool appends_() const noexcept { return mode_ == Mode::AppendWriteThrough || mode_ == Mode::Append; }

    ZnStorageFiles* files_;
    std::unique_ptr<ZnStorageFile> file_; // null: closed
    Mode mode_ = Mode::ReadOnly;
    ZnString path_;
    std::uint64_t size_ = 0;
    int syncError_ = 0;          // of the first flush that failed
    bool refusesAppend_ = false; // the end of the file is not known to be clean
};

/// Sets `message`, ": " and the error number with its meaning; 0, for a failure that is none of the system's, stands
/// alone. Always false. `errorOut` may be null.
bool failWithCode(const char* message, int error, ZnString* errorOut);

} // namespace znEmbeddedDbDetail
