#pragma once

#include "core/io/ZnIODevice.h"
#include "core/platform/ZnFilePlatform.h"

#include <fstream>

/// A file as a device, over a standard file stream: whole files, and one position for reading or writing.
///
/// Thread: one at a time. A program started later does not inherit the open file. Misuse of the mode is logged and left to the stream, which fails; only read and seek throw.
class ZnFile : public ZnIODevice {
public:
    ZN_OBJECT(ZnFile, ZnIODevice)

    enum class OpenMode : std::int32_t {
        Read = 0,
        Write = 1, // cuts an existing file to nothing
        Append = 2
    };

    explicit ZnFile(const ZnString& path = ZnString(), ZnObject* parent = nullptr);
    ~ZnFile() override;

    /// Returns whether a file is open afterwards.
    bool open(OpenMode mode);
    bool openBinary(OpenMode mode);
    /// Makes the file, for its owner alone, and opens it for writing. False when anything has the name already: a link
    /// that someone has put there leads nowhere.
    bool createNew();
    void close() override;
    bool isOpen() const override { return stream_.is_open(); }

    /// Up to `maxBytes` bytes, less only at the end of the file. std::runtime_error when the mode is not Read.
    ZnString read(long long maxBytes) override;
    /// The same without a throw: 0 when there is nothing to read.
    std::size_t readInto(char* buffer, std::size_t capacity) override;
    /// The rest of the file; empty when reading failed.
    ZnString readAll();
    /// Where the next read begins. std::runtime_error when the file is not open.
    void seek(long long position);

    /// Both write through to the system and give whether that went well.
    bool write(ZnByteArray bytes) override;
    bool write(ZnString bytes) override;
    /// Writes too, but small pieces wait in the stream for more; flush() tells whether they have gone well.
    bool writeBuffered(std::string_view bytes);
    bool flush();

private:
    bool openStream_(OpenMode mode, std::ios_base::openmode extraFlags);
    bool openBuffer_(ZnFilePlatform::Access access, std::ios_base::openmode flags);
    bool isWritable_() const noexcept { return mode_ == OpenMode::Write || mode_ == OpenMode::Append; }

    std::fstream stream_;
    OpenMode mode_ = OpenMode::Read;
};
