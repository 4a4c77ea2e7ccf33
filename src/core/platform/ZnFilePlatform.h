#pragma once

#include "core/platform/ZnFileDescriptor.h"
#include "core/types/ZnString.h"

/// What the system needs of single files: opening, kind, copy, removal, times and named attributes.
///
/// Thread: any; implementations have no state.
/// Paths are UTF-8, with either slash form; times are seconds since 1970. Failures are false or an empty text.
class ZnFilePlatform {
public:
    enum class Access {
        Read,
        Write,    // makes the file, or cuts it to nothing
        Append,   // makes the file
        CreateNew // for writing, and for its owner alone; fails when anything has the name, a link too
    };

    virtual ~ZnFilePlatform() = default;

    /// A program started later does not inherit the descriptor. An empty one for a failure.
    virtual ZnFileDescriptor open(const ZnString& path, Access access) = 0;
    /// Whether `path` names a regular file.
    virtual bool isFile(const ZnString& path) = 0;
    /// Copies the content of a regular file. Refuses an existing destination unless `overwrite` is set, and the file
    /// itself as its destination. A copy that fails half way is removed.
    virtual bool copy(const ZnString& source, const ZnString& destination, bool overwrite) = 0;
    /// Removes the name of a file or link; a directory stays.
    virtual bool remove(const ZnString& path) = 0;
    /// `*creation` is 0 where the file system does not keep it.
    virtual bool getFileMetadata(const ZnString& path, long long* creation, long long* lastAccess,
                                 long long* lastWrite) = 0;
    virtual bool setCreationTime(const ZnString& path, long long seconds) = 0;
    virtual bool setLastWriteTime(const ZnString& path, long long seconds) = 0;
    virtual bool setLastAccessTime(const ZnString& path, long long seconds) = 0;
    /// Sets all three, or none and gives false.
    virtual bool setAllFileTimes(const ZnString& path, long long creation, long long lastAccess,
                                 long long lastWrite) = 0;
    /// Keeps `value` beside the file under a name; an earlier value is replaced. Makes the file if there is none.
    virtual bool writeMetadata(const ZnString& path, const ZnString& streamName, const ZnString& value) = 0;
    /// The first kMaxMetadataChars characters of the value; empty when there is none.
    virtual ZnString readMetadata(const ZnString& path, const ZnString& streamName) = 0;

    static constexpr int kMaxMetadataChars = 1024;
};

/// The process-wide instance.
ZnFilePlatform* znFilePlatform();
