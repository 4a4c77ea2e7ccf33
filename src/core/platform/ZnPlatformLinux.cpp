#include "core/platform/ZnPlatformLinux.h"

#include "core/platform/ZnFileDescriptor.h"
#include "core/types/ZnLogger.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <optional>
#include <regex>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr const char* kCategory = "zn.core.platform.znplatformlinux";

/// The path as the system takes it. A path with a NUL byte becomes the empty one, which every call refuses: the system
/// would stop at the NUL and act on another file.
ZnString systemPath(const ZnString& path) {
    if (path.contains(std::string_view("\0", 1)))
        return ZnString();
    ZnString text = path;
    text.replace("\\", "/");
    return text;
}

std::optional<struct stat> statusOf(const ZnString& path) {
    struct stat status;
    if (::stat(systemPath(path).data(), &status) != 0)
        return std::nullopt;
    return status;
}

// --- Files ---------------------------------------------------------------------------------------------------------

int openFlags(ZnFilePlatform::Access access) {
    switch (access) {
    case ZnFilePlatform::Access::Read: return O_RDONLY;
    case ZnFilePlatform::Access::Write: return O_WRONLY | O_CREAT | O_TRUNC;
    case ZnFilePlatform::Access::Append: return O_WRONLY | O_CREAT | O_APPEND;
    case ZnFilePlatform::Access::CreateNew: return O_WRONLY | O_CREAT | O_EXCL;
    }
    return O_RDONLY;
}

bool writeAll(int to, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(to, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR)
            return false;
        bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
    }
    return true;
}

int transferThroughMemory(int from, int to) {
    std::vector<char> buffer(64 * 1024);
    for (;;) {
        const ssize_t got = ::read(from, buffer.data(), buffer.size());
        if (got == 0)
            return 0;
        const bool hasFailed = got < 0 ? errno != EINTR : !writeAll(to, {buffer.data(), static_cast<std::size_t>(got)});
        if (hasFailed)
            return errno;
    }
}

int transferAll(int from, int to) {
    constexpr std::size_t kPassBytes = std::size_t(1) << 30;
    for (;;) {
        const ssize_t moved = ::sendfile(to, from, nullptr, kPassBytes);
        if (moved == 0)
            return 0;
        if (moved < 0 && (errno == EINVAL || errno == ENOSYS))
            return transferThroughMemory(from, to); // not every file system can: go on from here
        if (moved < 0 && errno != EINTR)
            return errno;
    }
}

/// Prepares `to` for the content of `from`. Returns an errno value, 0 for success.
int openPair(const ZnString& source, const ZnString& destination, bool overwrite, ZnFileDescriptor* from,
             ZnFileDescriptor* to) {
    constexpr int kCommonFlags = O_CLOEXEC | O_NOCTTY | O_NONBLOCK; // a pipe must not stop the thread
    struct stat fromStatus;
    struct stat toStatus;
    *from = ZnFileDescriptor(::open(source.data(), O_RDONLY | kCommonFlags));
    if (!*from || ::fstat(from->get(), &fromStatus) != 0)
        return errno;
    if (!S_ISREG(fromStatus.st_mode))
        return EINVAL;
    *to = ZnFileDescriptor(::open(destination.data(), O_WRONLY | O_CREAT | kCommonFlags | (overwrite ? 0 : O_EXCL),
                                  fromStatus.st_mode & 0777));
    if (!*to || ::fstat(to->get(), &toStatus) != 0)
        return errno;
    const bool sameFile = fromStatus.st_dev == toStatus.st_dev && fromStatus.st_ino == toStatus.st_ino;
    if (!S_ISREG(toStatus.st_mode) || sameFile)
        return EINVAL;
    // Only now, not with O_TRUNC: a file copied onto itself would be lost before the comparison.
    return ::ftruncate(to->get(), 0) == 0 ? 0 : errno;
}

int copyFile(const ZnString& source, const ZnString& destination, bool overwrite) {
    ZnFileDescriptor from;
    ZnFileDescriptor to;
    if (const int error = openPair(source, destination, overwrite, &from, &to); error != 0)
        return error;
    const int error = transferAll(from.get(), to.get());
    if (error != 0)
        ::unlink(destination.data());
    return error;
}

constexpr timespec kLeaveTime = {0, UTIME_OMIT};

timespec timeOf(long long seconds) {
    return {static_cast<time_t>(seconds), 0};
}

bool setTimes(const ZnString& path, timespec lastAccess, timespec lastWrite) {
    const timespec times[2] = {lastAccess, lastWrite};
    return ::utimensat(AT_FDCWD, systemPath(path).data(), times, 0) == 0;
}

/// The name of the extended attribute; empty, which the system refuses, for a name with a NUL byte.
ZnString attributeName(const ZnString& streamName) {
    return streamName.contains(std::string_view("\0", 1)) ? ZnString() : "user." + streamName;
}

/// Makes the file if there is none; a failure leaves none behind. Returns an errno value, 0 for success.
int writeAttribute(const ZnString& path, const ZnString& name, const ZnString& value) {
    const auto set = [&] {
        return ::setxattr(path.data(), name.data(), value.data(), value.size(), 0) == 0 ? 0 : errno;
    };
    int error = set();
    if (error != ENOENT)
        return error;
    const ZnFileDescriptor made(::open(path.data(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    error = made || errno == EEXIST ? set() : errno;
    if (error != 0 && made)
        ::unlink(path.data());
    return error;
}

/// The start of a UTF-8 text, cut behind `maxChars` characters.
std::string_view firstChars(std::string_view text, int maxChars) {
    int charCount = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool startsChar = (static_cast<unsigned char>(text[i]) & 0xC0) != 0x80;
        if (startsChar && ++charCount > maxChars)
            return text.substr(0, i);
    }
    return text;
}

// --- Directories ---------------------------------------------------------------------------------------------------

struct CloseDirectory {
    void operator()(DIR* directory) const noexcept { ::closedir(directory); }
};
using DirectoryHandle = std::unique_ptr<DIR, CloseDirectory>;

/// Null when `name`, relative to the open directory `parent` or AT_FDCWD, cannot be read.
DirectoryHandle openDirectory(int parent, const char* name, int extraFlags = 0) {
    const int descriptor = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | extraFlags);
    if (descriptor < 0)
        return nullptr;
    DIR* directory = ::fdopendir(descriptor);
    if (directory == nullptr)
        ::close(descriptor);
    return DirectoryHandle(directory);
}

/// The next entry but "." and ".."; null at the end.
const dirent* nextEntry(DIR* directory) {
    for (;;) {
        const dirent* entry = ::readdir(directory);
        if (entry == nullptr)
            return nullptr;
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..")
            return entry;
    }
}

enum class EntryKind { File, Directory, LinkToDirectory };

/// Everything that is no directory counts as a file, also a link that leads nowhere.
EntryKind kindOf(DIR* directory, const dirent& entry) {
    struct stat status;
    unsigned char type = entry.d_type;
    if (type == DT_UNKNOWN && ::fstatat(::dirfd(directory), entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0)
        type = S_ISDIR(status.st_mode) ? DT_DIR : S_ISLNK(status.st_mode) ? DT_LNK : DT_REG;
    if (type == DT_DIR)
        return EntryKind::Directory;
    const bool isLink = type == DT_LNK && ::fstatat(::dirfd(directory), entry.d_name, &status, 0) == 0;
    return isLink && S_ISDIR(status.st_mode) ? EntryKind::LinkToDirectory : EntryKind::File;
}

/// The name filters of one listing, compiled once.
class NameFilters {
public:
    explicit NameFilters(const ZnList<ZnString>& filters) : passesAll_(filters.isEmpty()) {
        for (const ZnString& filter : filters)
            add_(filter);
    }

    bool pass(const char* name) const {
        for (const std::regex& expression : expressions_)
            if (std::regex_match(name, expression))
                return true;
        return passesAll_;
    }

private:
    void add_(const ZnString& filter) {
        ZnString pattern = filter;
        pattern.replace("*", ".*");
        auto options = std::regex::ECMAScript | std::regex::icase;
#if defined(__GLIBCXX__)
        // The default matcher recurses once per character, too deep for a fiber's stack.
        options |= std::regex_constants::__polynomial;
#endif
        try {
            expressions_.emplace_back("^" + pattern.str() + "$", options);
        } catch (const std::regex_error&) {
            // A filter that is no expression matches nothing.
        }
    }

    bool passesAll_;
    std::vector<std::regex> expressions_;
};

ZnString childPath(const ZnString& directory, const char* name) {
    ZnString path = directory;
    if (!path.endsWith("/"))
        path += '/';
    return std::move(path += name);
}

/// With a slash behind it a link would be followed even by calls that follow none.
ZnString withoutEndSlashes(const ZnString& path) {
    std::string_view text = path.view();
    while (text.size() > 1 && text.ends_with('/'))
        text.remove_suffix(1);
    return ZnString(text);
}

/// Whether the directory stands now: something that stood there already counts.
bool makeDirectory(const ZnString& path) {
    return ::mkdir(path.data(), 0777) == 0 || errno == EEXIST || znDirPlatform()->isDirectory(path);
}

/// Appends `pieces`, separated by "/", to the absolute path `base`; "." and ".." pieces are resolved.
void appendPieces(std::string* base, std::string_view pieces) {
    while (!pieces.empty()) {
        const std::size_t end = std::min(pieces.find('/'), pieces.size());
        const std::string_view piece = pieces.substr(0, end);
        pieces.remove_prefix(std::min(end + 1, pieces.size()));
        if (piece == "..")
            base->resize(base->empty() ? 0 : base->rfind('/'));
        else if (!piece.empty() && piece != ".")
            base->append("/").append(piece);
    }
}

/// Copies the entries of one directory; subdirectories are only noted.
bool copyEntries(const ZnString& source, const ZnString& destination, std::vector<ZnString>* subdirectories) {
    const DirectoryHandle directory = openDirectory(AT_FDCWD, source.data());
    if (!directory)
        return false;
    while (const dirent* entry = nextEntry(directory.get())) {
        const EntryKind kind = kindOf(directory.get(), *entry);
        if (kind == EntryKind::Directory)
            subdirectories->push_back(ZnString(entry->d_name));
        else if (kind == EntryKind::File &&
                 !znFilePlatform()->copy(childPath(source, entry->d_name), childPath(destination, entry->d_name), true))
            return false;
    }
    return true;
}

} // namespace

ZnFilePlatform* znFilePlatform() {
    static ZnLinuxFilePlatform instance;
    return &instance;
}

ZnDirPlatform* znDirPlatform() {
    static ZnLinuxDirPlatform instance;
    return &instance;
}

ZnFileDescriptor ZnLinuxFilePlatform::open(const ZnString& path, Access access) {
    const mode_t permissions = access == Access::CreateNew ? 0600 : 0666;
    return ZnFileDescriptor(::open(systemPath(path).data(), openFlags(access) | O_CLOEXEC | O_NOCTTY, permissions));
}

bool ZnLinuxFilePlatform::isFile(const ZnString& path) {
    const auto status = statusOf(path);
    return status && S_ISREG(status->st_mode);
}

bool ZnLinuxFilePlatform::copy(const ZnString& source, const ZnString& destination, bool overwrite) {
    const int error = copyFile(systemPath(source), systemPath(destination), overwrite);
    if (error != 0)
        ZN_LOG_ERROR(kCategory, "ZnLinuxFilePlatform::copy") << "Failed to copy file. Error: " << error;
    return error == 0;
}

bool ZnLinuxFilePlatform::remove(const ZnString& path) {
    return ::unlink(systemPath(path).data()) == 0;
}

bool ZnLinuxFilePlatform::getFileMetadata(const ZnString& path, long long* creation, long long* lastAccess,
                                          long long* lastWrite) {
    struct statx status;
    if (::statx(AT_FDCWD, systemPath(path).data(), 0, STATX_BASIC_STATS | STATX_BTIME, &status) != 0) {
        const int error = errno;
        ZN_LOG_ERROR(kCategory, "ZnLinuxFilePlatform::getFileMetadata")
            << "Failed to open file for metadata: " << error;
        return false;
    }
    *creation = (status.stx_mask & STATX_BTIME) != 0 ? status.stx_btime.tv_sec : 0;
    *lastAccess = status.stx_atime.tv_sec;
    *lastWrite = status.stx_mtime.tv_sec;
    return true;
}

bool ZnLinuxFilePlatform::setCreationTime(const ZnString&, long long) {
    return false; // the system has no call for it
}

bool ZnLinuxFilePlatform::setLastWriteTime(const ZnString& path, long long seconds) {
    return setTimes(path, kLeaveTime, timeOf(seconds));
}

bool ZnLinuxFilePlatform::setLastAccessTime(const ZnString& path, long long seconds) {
    return setTimes(path, timeOf(seconds), kLeaveTime);
}

bool ZnLinuxFilePlatform::setAllFileTimes(const ZnString& path, long long creation, long long lastAccess,
                                          long long lastWrite) {
    long long present[3];
    if (!getFileMetadata(path, &present[0], &present[1], &present[2]) || present[0] != creation)
        return false; // all or none, and the creation time stays what it is
    return setTimes(path, timeOf(lastAccess), timeOf(lastWrite));
}

bool ZnLinuxFilePlatform::writeMetadata(const ZnString& path, const ZnString& streamName, const ZnString& value) {
    const int error = writeAttribute(systemPath(path), attributeName(streamName), value);
    if (error == 0)
        return true;
    if (error == ENOTSUP)
        ZN_LOG_WARNING(kCategory, "ZnLinuxFilePlatform::writeMetadata") << "ADS metadata unsupported on this volume";
    else
        ZN_LOG_ERROR(kCategory, "ZnLinuxFilePlatform::writeMetadata") << "Failed to open ADS: " << error;
    return false;
}

ZnString ZnLinuxFilePlatform::readMetadata(const ZnString& path, const ZnString& streamName) {
    const ZnString file = systemPath(path);
    const ZnString name = attributeName(streamName);
    const ssize_t valueBytes = ::getxattr(file.data(), name.data(), nullptr, 0);
    if (valueBytes <= 0)
        return ZnString();
    std::string value(static_cast<std::size_t>(valueBytes), '\0');
    const ssize_t readBytes = ::getxattr(file.data(), name.data(), value.data(), value.size());
    if (readBytes <= 0)
        return ZnString();
    return ZnString(firstChars({value.data(), static_cast<std::size_t>(readBytes)}, kMaxMetadataChars));
}

bool ZnLinuxDirPlatform::exists(const ZnString& path) {
    return statusOf(path).has_value();
}

bool ZnLinuxDirPlatform::isDirectory(const ZnString& path) {
    const auto status = statusOf(path);
    return status && S_ISDIR(status->st_mode);
}

ZnString ZnLinuxDirPlatform::normalizePath(const ZnString& path) {
    ZnString text = path;
    text.replace("\\", "/");
    if (text.isEmpty())
        return text;
    std::string absolute;
    if (!text.startsWith("/")) {
        std::error_code error;
        const std::string current = std::filesystem::current_path(error).string();
        if (error)
            return text;
        appendPieces(&absolute, current);
    }
    appendPieces(&absolute, text.view());
    return absolute.empty() ? ZnString("/") : ZnString(std::move(absolute));
}

ZnList<ZnString> ZnLinuxDirPlatform::entryList(const ZnString& path, const ZnList<ZnString>& nameFilters,
                                               int typeFlags) {
    ZnList<ZnString> names;
    const DirectoryHandle directory = openDirectory(AT_FDCWD, systemPath(path).data());
    if (!directory)
        return names;
    const NameFilters filters(nameFilters);
    while (const dirent* entry = nextEntry(directory.get())) {
        const int flag = kindOf(directory.get(), *entry) == EntryKind::File ? kFiles : kDirectories;
        if ((typeFlags & flag) != 0 && filters.pass(entry->d_name))
            names.append(entry->d_name);
    }
    return names;
}

ZnList<ZnString> ZnLinuxDirPlatform::entryList(const ZnString& path, int typeFlags) {
    return entryList(path, {}, typeFlags);
}

ZnList<ZnString> ZnLinuxDirPlatform::findFiles(const ZnString& path, const ZnList<ZnString>& nameFilters) {
    ZnList<ZnString> files;
    const NameFilters filters(nameFilters);
    std::vector<ZnString> waiting{systemPath(path)};
    while (!waiting.empty()) {
        const ZnString current = std::move(waiting.back());
        waiting.pop_back();
        const DirectoryHandle directory = openDirectory(AT_FDCWD, current.data());
        while (const dirent* entry = directory ? nextEntry(directory.get()) : nullptr) {
            const EntryKind kind = kindOf(directory.get(), *entry);
            if (kind == EntryKind::Directory)
                waiting.push_back(childPath(current, entry->d_name));
            else if (kind == EntryKind::File && filters.pass(entry->d_name))
                files.append(childPath(current, entry->d_name));
        }
    }
    return files;
}

ZnString ZnLinuxDirPlatform::currentPath() {
    std::error_code error;
    ZnString path(std::filesystem::current_path(error).string());
    if (!error && !path.endsWith("/"))
        path += '/';
    return path;
}

bool ZnLinuxDirPlatform::mkpath(const ZnString& path) {
    const ZnString whole = systemPath(normalizePath(path));
    if (whole.isEmpty())
        return false;
    if (makeDirectory(whole))
        return true;
    for (std::size_t end = whole.indexOf("/", 1); end != ZnString::npos; end = whole.indexOf("/", end + 1))
        if (!makeDirectory(ZnString(whole.data(), end)))
            break;
    return makeDirectory(whole);
}

bool ZnLinuxDirPlatform::removeRecursively(const ZnString& path) {
    struct Level {
        DirectoryHandle directory;
        std::string name; // in the level above
    };
    const ZnString root = withoutEndSlashes(systemPath(path));
    std::vector<Level> levels; // a loop over open directories: neither depth nor a link put in the way leads it astray
    levels.push_back({openDirectory(AT_FDCWD, root.data(), O_NOFOLLOW), std::string()});
    while (levels.back().directory) {
        DIR* directory = levels.back().directory.get();
        if (const dirent* entry = nextEntry(directory)) {
            if (::unlinkat(::dirfd(directory), entry->d_name, 0) == 0)
                continue;
            if (DirectoryHandle below = openDirectory(::dirfd(directory), entry->d_name, O_NOFOLLOW))
                levels.push_back({std::move(below), entry->d_name});
        } else {
            const std::string name = std::move(levels.back().name);
            levels.pop_back();
            if (levels.empty())
                break;
            ::unlinkat(::dirfd(levels.back().directory.get()), name.c_str(), AT_REMOVEDIR);
        }
    }
    return ::rmdir(root.data()) == 0;
}

bool ZnLinuxDirPlatform::copyDirectory(const ZnString& source, const ZnString& destination) {
    const ZnString from = normalizePath(source);
    const ZnString to = normalizePath(destination);
    const ZnString inside = from.endsWith("/") ? from : from + "/";
    if (to == from || to.startsWith(inside.view()))
        return false; // the copy would be copied again, and so on
    std::vector<std::pair<ZnString, ZnString>> waiting{{from, to}};
    while (!waiting.empty()) {
        const auto [fromDirectory, toDirectory] = std::move(waiting.back());
        waiting.pop_back();
        std::vector<ZnString> subdirectories;
        if (!mkpath(toDirectory) || !copyEntries(fromDirectory, toDirectory, &subdirectories))
            return false;
        for (const ZnString& name : subdirectories)
            waiting.emplace_back(childPath(fromDirectory, name.data()), childPath(toDirectory, name.data()));
    }
    return true;
}
