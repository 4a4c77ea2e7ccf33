#pragma once

#include "core/types/ZnString.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

/// One open regular file. Every operation gives 0 or the system's error number.
///
/// Thread: one at a time, except readAt(), which any number may call. Closed with the object.
class ZnStorageFile {
public:
    virtual ~ZnStorageFile() = default;

    /// One transfer, begun again only when a signal interrupted it. `*movedBytes` may be less than asked for; 0 at the
    /// end of the file.
    virtual int readAt(std::uint64_t offset, char* buffer, std::size_t byteCount, std::size_t* movedBytes) = 0;
    virtual int writeAt(std::uint64_t offset, const char* bytes, std::size_t byteCount, std::size_t* movedBytes) = 0;
    virtual int truncate(std::uint64_t sizeBytes) = 0;
    /// Brings content and all attributes to stable storage; syncData() only what reading the content back takes.
    virtual int sync() = 0;
    virtual int syncData() = 0;
    virtual int size(std::uint64_t* sizeBytes) = 0;
    /// Lets the system begin to write the range to the disk, so that a later sync has less to wait for. A hint.
    virtual void startWriteback(std::uint64_t /*offset*/, std::uint64_t /*byteCount*/) {}
};

/// The bytes of a file, mapped for reading. Any thread; unmapped with the object.
class ZnStorageMapping {
public:
    virtual ~ZnStorageMapping() = default;
    virtual const char* data() const = 0;
};

/// A lock on a file, released with the object.
class ZnStorageLock {
public:
    virtual ~ZnStorageLock() = default;
};

/// The few file operations on which the store's durability rests, and all that it uses of a file system. Behind an
/// interface, so that a test can let each of them fail and can cut the power between any two.
///
/// Thread: any. Paths are UTF-8 and in normal form. Every operation gives 0 or the system's error number, and a failed
/// one leaves its outputs as they were.
class ZnStorageFiles {
public:
    struct Access {
        bool write = false;    // else for reading alone, and nothing is made
        bool create = false;   // makes the file if there is none
        bool truncate = false; // cuts it to nothing
        bool syncEach = false; // a write is on stable storage when it returns
    };

    virtual ~ZnStorageFiles() = default;

    /// Only regular files are opened. `*isNew` tells whether this call made the file.
    virtual int open(const ZnString& path, Access access, std::unique_ptr<ZnStorageFile>* file, bool* isNew) = 0;
    /// The whole file; `*sizeBytes` is set whenever it could be asked for, and EINVAL is the answer to an empty file.
    virtual int map(const ZnString& path, std::unique_ptr<ZnStorageMapping>* mapping, std::uint64_t* sizeBytes) = 0;
    /// Replaces what stands at `to`, in one step.
    virtual int rename(const ZnString& from, const ZnString& to) = 0;
    virtual int remove(const ZnString& path) = 0;
    /// Makes the directory and those above it; one that stands there already is a success.
    virtual int makePath(const ZnString& path) = 0;
    /// Brings the names in a directory to stable storage. A file system that knows no such thing counts as success.
    virtual int syncDirectory(const ZnString& path) = 0;
    /// The bare names of what is no directory, in no order.
    virtual int list(const ZnString& path, std::vector<ZnString>* names) = 0;
    /// Takes the exclusive lock of a file, made if there is none; EWOULDBLOCK when someone has it, this process
    /// included. Never waits.
    virtual int lock(const ZnString& path, std::unique_ptr<ZnStorageLock>* lock) = 0;
};

/// The process-wide instance, over the system's calls.
ZnStorageFiles& znStorageFiles();

/// What the system calls an error number: "No space left on device".
ZnString systemErrorText(int error);
