#include "core/io/ZnFile.h"

#include "core/platform/ZnDirPlatform.h"
#include "core/types/ZnLogger.h"

#include <algorithm>
#include <ext/stdio_filebuf.h>
#include <stdexcept>
#include <utility>

namespace {

constexpr const char* kCategory = "zn.core.io.znfile";

std::ios_base::openmode streamFlags(ZnFile::OpenMode mode) {
    switch (mode) {
    case ZnFile::OpenMode::Read: return std::ios_base::in;
    case ZnFile::OpenMode::Write: return std::ios_base::out | std::ios_base::trunc;
    case ZnFile::OpenMode::Append: return std::ios_base::out | std::ios_base::app;
    }
    ZN_LOG_ERROR(kCategory, "ZnFile::open") << "Mode d'ouverture invalide.";
    return static_cast<std::ios_base::openmode>(mode);
}

ZnFilePlatform::Access accessFor(std::ios_base::openmode flags) {
    if ((flags & std::ios_base::app) != 0)
        return ZnFilePlatform::Access::Append;
    return (flags & std::ios_base::out) != 0 ? ZnFilePlatform::Access::Write : ZnFilePlatform::Access::Read;
}

/// The system would open a directory for reading, and cut a path at a NUL byte.
bool canBeFile(const ZnString& path) {
    return !path.contains(std::string_view("\0", 1)) && !znDirPlatform()->isDirectory(path);
}

} // namespace

ZnFile::ZnFile(const ZnString& path, ZnObject* parent) : ZnIODevice(parent) {
    path_ = path;
}

ZnFile::~ZnFile() {
    ZnFile::close();
}

bool ZnFile::open(OpenMode mode) {
    if (path_.isEmpty())
        ZN_LOG_ERROR(kCategory, "ZnFile::open") << "Chemin du fichier non défini.";
    return openStream_(mode, std::ios_base::openmode());
}

bool ZnFile::openBinary(OpenMode mode) {
    if (path_.isEmpty())
        ZN_LOG_ERROR(kCategory, "ZnFile::openBinary") << "Chemin du fichier non defini.";
    return openStream_(mode, std::ios_base::binary);
}

bool ZnFile::createNew() {
    if (!openBuffer_(ZnFilePlatform::Access::CreateNew, std::ios_base::out | std::ios_base::binary))
        return false;
    mode_ = OpenMode::Write;
    return true;
}

bool ZnFile::openStream_(OpenMode mode, std::ios_base::openmode extraFlags) {
    const std::ios_base::openmode flags = streamFlags(mode) | extraFlags;
    if (canBeFile(path_) && openBuffer_(accessFor(flags), flags))
        mode_ = mode;
    else
        stream_.setstate(std::ios_base::failbit);
    return stream_.is_open();
}

/// The standard buffer opens files that a child process inherits, so it gets an open one.
bool ZnFile::openBuffer_(ZnFilePlatform::Access access, std::ios_base::openmode flags) {
    if (stream_.is_open())
        return false; // as the standard buffer does: what is open stays
    ZnFileDescriptor descriptor = znFilePlatform()->open(path_, access);
    if (!descriptor)
        return false;
    __gnu_cxx::stdio_filebuf<char> buffer(descriptor.get(), flags);
    if (!buffer.is_open())
        return false;
    descriptor.release(); // the buffer closes it
    *stream_.rdbuf() = std::move(buffer);
    stream_.clear();
    open_ = true;
    return true;
}

void ZnFile::close() {
    if (stream_.is_open())
        stream_.close(); // sets the failbit itself
    open_ = false;
}

ZnString ZnFile::read(long long maxBytes) {
    if (mode_ != OpenMode::Read)
        throw std::runtime_error("Fichier non ouvert en mode lecture.");
    std::string bytes;
    constexpr std::size_t kPassBytes = 64 * 1024; // the count may be far above what the file holds
    for (auto left = static_cast<std::size_t>(std::max(maxBytes, 0LL)); left > 0;) {
        const std::size_t before = bytes.size();
        const std::size_t pass = std::min(left, kPassBytes);
        bytes.resize(before + pass);
        const std::size_t got = readInto(bytes.data() + before, pass);
        bytes.resize(before + got);
        left = got < pass ? 0 : left - got;
    }
    return ZnString(std::move(bytes));
}

std::size_t ZnFile::readInto(char* buffer, std::size_t capacity) {
    if (mode_ != OpenMode::Read)
        return 0;
    stream_.read(buffer, static_cast<std::streamsize>(capacity));
    const auto got = static_cast<std::size_t>(stream_.gcount());
    if (stream_.eof() && !stream_.bad())
        stream_.clear(); // the end is no failure: the file may grow, and a seek must work
    return got;
}

ZnString ZnFile::readAll() {
    if (mode_ != OpenMode::Read)
        ZN_LOG_ERROR(kCategory, "ZnFile::readAll") << "Fichier non ouvert en mode lecture.";
    std::string bytes;
    std::size_t blockBytes = 4096;
    for (std::size_t got = blockBytes, used = 0; got > 0; used += got) {
        bytes.resize(used + blockBytes);
        stream_.read(bytes.data() + used, static_cast<std::streamsize>(blockBytes));
        got = static_cast<std::size_t>(stream_.gcount());
        bytes.resize(used + got);
        blockBytes = std::min(blockBytes * 2, std::size_t(1) << 20);
    }
    const bool atEnd = stream_.eof() && !stream_.bad();
    if (atEnd)
        stream_.clear();
    return atEnd ? ZnString(std::move(bytes)) : ZnString();
}

void ZnFile::seek(long long position) {
    if (!isOpen())
        throw std::runtime_error("Fichier non ouvert.");
    stream_.seekg(static_cast<std::streamoff>(position));
}

bool ZnFile::write(ZnByteArray bytes) {
    if (!isWritable_())
        ZN_LOG_ERROR(kCategory, "ZnFile::write") << "Fichier non ouvert en mode ecriture.";
    return writeBuffered(bytes.view()) && flush();
}

bool ZnFile::write(ZnString bytes) {
    if (!isWritable_())
        ZN_LOG_ERROR(kCategory, "ZnFile::write") << "Fichier non ouvert en mode écriture.";
    return writeBuffered(bytes.view()) && flush();
}

bool ZnFile::writeBuffered(std::string_view bytes) {
    if (!bytes.empty())
        stream_.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return stream_.good();
}

bool ZnFile::flush() {
    stream_.flush();
    return stream_.good();
}
