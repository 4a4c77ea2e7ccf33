#pragma once

#include "core/platform/ZnStorageFiles.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <vector>

/// A file system in memory that tells what is on stable storage from what is not, lets operations fail, and can lose
/// its power.
///
/// Harsher than most disks: a file's content and its name are synced apart, the two directories of a rename are too,
/// and a failed sync loses what it could not write while reading still shows it. Directories themselves are never lost.
/// Thread: any for the operations; the rest while nobody uses the files.
class MemoryFiles final : public ZnStorageFiles {
public:
    /// The operation of this number, counted from the next one as 1, fails with `error`; of a write the first half is
    /// done nevertheless. 0 ends it. Opening, mapping and closing for reading count too.
    void failOperation(long number, int error) {
        const std::lock_guard lock(mutex_);
        failNumber_ = number, failError_ = error, count_ = 0;
    }
    /// Every operation from that number on fails, as if the process had ended.
    void stopAt(long number) {
        const std::lock_guard lock(mutex_);
        stopNumber_ = number, count_ = 0;
    }
    bool isStopped() const { return stopNumber_ != 0; }
    long operationCount() const {
        const std::lock_guard lock(mutex_);
        return count_;
    }
    /// Room for so many bytes more; then ENOSPC, and a write that has room for a part is a short one.
    void setFreeBytes(std::uint64_t bytes) {
        const std::lock_guard lock(mutex_);
        freeBytes_ = bytes;
    }

    /// Drops all that was not synced; with `random`, any part of it stays instead: writes and names in any selection,
    /// a write cut at any byte. Open files must not be used any more. Faults end.
    void cutPower(std::mt19937_64* random = nullptr);

    /// A file on stable storage.
    void put(const ZnString& path, const std::string& content);
    bool has(const ZnString& path) const { return names_.count(path) != 0; }
    std::string content(const ZnString& path) const { return has(path) ? names_.at(path)->current : "no such file"; }
    std::vector<ZnString> paths() const;

    int open(const ZnString& path, Access access, std::unique_ptr<ZnStorageFile>* file, bool* isNew) override;
    int map(const ZnString& path, std::unique_ptr<ZnStorageMapping>* mapping, std::uint64_t* sizeBytes) override;
    int rename(const ZnString& from, const ZnString& to) override;
    int remove(const ZnString& path) override;
    int makePath(const ZnString& path) override;
    int syncDirectory(const ZnString& path) override;
    int list(const ZnString& path, std::vector<ZnString>* names) override;
    int lock(const ZnString& path, std::unique_ptr<ZnStorageLock>* lock) override;

private:
    friend class MemoryFile;
    struct Change {
        bool isTruncate;
        std::uint64_t offset; // or the new size
        std::string bytes;
    };
    struct Node {
        std::string current;
        std::string durable;
        std::vector<Change> pending;
    };
    using NodePtr = std::shared_ptr<Node>;
    struct NameChange {                                  // of one directory, done as a whole
        std::vector<std::pair<ZnString, NodePtr>> names; // null: taken away
    };

    static void apply(std::string* content, const Change& change);
    int fault();
    template <typename Operation>
    int unlessItFails(Operation operation) {
        const std::lock_guard lock(mutex_);
        const int error = fault();
        return error != 0 ? error : operation();
    }
    static void apply(std::map<ZnString, NodePtr>* names, const NameChange& change);
    void changeNames(NameChange change);
    static void keepSome(Node* node, std::mt19937_64* random);

    mutable std::recursive_mutex mutex_; // of everything below, and of all nodes
    std::map<ZnString, NodePtr> names_;
    std::map<ZnString, NodePtr> durableNames_;
    std::vector<NameChange> pendingNames_;
    std::set<ZnString> locks_;
    long count_ = 0;
    long failNumber_ = 0;
    int failError_ = 0;
    long stopNumber_ = 0;
    std::uint64_t freeBytes_ = ~std::uint64_t(0);
};
