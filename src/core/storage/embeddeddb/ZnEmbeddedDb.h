#pragma once

#include "core/platform/ZnStorageFiles.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbBatch.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbChange.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbIterator.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbOptions.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbSnapshot.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbStats.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbStatus.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbVerifyReport.h"
#include "core/types/ZnByteArray.h"
#include "core/types/ZnByteView.h"
#include "core/types/ZnString.h"
#include "core/types/ZnVector.h"

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>

namespace znEmbeddedDbDetail {
struct Store_;
struct StoreAccess_;
} // namespace znEmbeddedDbDetail

/// The records that a scan goes through: from `start` (included) to `end` (excluded), of them those that
/// begin with `prefix`. Null and empty bounds do not bound.
struct ZnEmbeddedDbRange {
    ZnByteArray start;
    ZnByteArray end;
    ZnByteArray prefix;
    bool reverse = false;                                            // from the greatest key down
    std::uint64_t limit = std::numeric_limits<std::uint64_t>::max(); // number of records
    bool keysOnly = false;                                           // values stay unread
    ZnEmbeddedDbSnapshotPtr snapshot;                                // null: as it is now
};

/// A key-value store in a directory: ordered keys, any number of secondary indexes, atomic batches,
/// snapshots.
///
/// One object at a time, in one process, has a store open for writing; any number open it to read. Needs no
/// event loop, but for watch(). Thread: any for every operation but open(), watch(), close() and the destructor,
/// which belong to the owner: nothing else may be called while open() runs. Writes, sync() and flush() block; on
/// the thread of an event loop use writeAsync. A child that has been forked must not use the store. Keys have 0 to
/// 65535 bytes, values up to 1 GiB. Statuses name the path and the cause. Code 5 is that of a store that is not
/// open, or closes.
class ZnEmbeddedDb {
public:
    static constexpr std::size_t kMaxKeyBytes = 65535;
    static constexpr std::size_t kMaxValueBytes = 1024 * 1024 * 1024;

    /// `files` must outlive the store, its snapshots and its iterators.
    explicit ZnEmbeddedDb(ZnStorageFiles& files = znStorageFiles());
    /// Closes.
    ~ZnEmbeddedDb();
    ZnEmbeddedDb(const ZnEmbeddedDb&) = delete;
    ZnEmbeddedDb& operator=(const ZnEmbeddedDb&) = delete;

    /// Code 1: no store there, and none is to be made. Code 2: another process, or another object, has it
    /// open for writing. Code 4: it is open, or exists although it must not. Code 6: the file system. Code 7:
    /// damaged; nothing on the disk was changed. After a failure the store is closed.
    ZnEmbeddedDbStatus open(const ZnString& path, const ZnEmbeddedDbOptions& options = {});
    /// Writes everything to tables and releases the store. Never fails: what could not be written comes back
    /// from the log on the next open(). Waiting writers end with code 5.
    void close();
    bool isOpen() const;

    /// All or nothing, in the order of the calls that have returned. Code 3 for a store that was opened to
    /// read. After code 6 the outcome is unknown until the store is opened anew: the write is there as a
    /// whole, or not at all.
    ZnEmbeddedDbStatus put(ZnByteView key, ZnByteView value, const ZnEmbeddedDbIndexKeys& indexKeys = {},
                           ZnEmbeddedDbDurability durability = ZnEmbeddedDbDurability::Default);
    /// Ok also when there is no such key.
    ZnEmbeddedDbStatus remove(ZnByteView key, ZnEmbeddedDbDurability durability = ZnEmbeddedDbDurability::Default);
    ZnEmbeddedDbStatus write(const ZnEmbeddedDbBatch& batch,
                             ZnEmbeddedDbDurability durability = ZnEmbeddedDbDurability::Default);
    /// Does not wait for the write; `callback` gets its status, exactly once: on the calling thread's event
    /// loop when it has one, else on a thread of the store, which it must not hold up.
    void writeAsync(const ZnEmbeddedDbBatch& batch, std::function<void(const ZnEmbeddedDbStatus&)> callback,
                    ZnEmbeddedDbDurability durability = ZnEmbeddedDbDurability::Default);

    /// Code 1 when there is no such key, with `*value` as it was.
    ZnEmbeddedDbStatus get(ZnByteView key, ZnByteArray* value, const ZnEmbeddedDbSnapshotPtr& snapshot = nullptr) const;
    /// As many values as keys, all of one moment; nothing for a key that is not there.
    ZnEmbeddedDbStatus multiGet(const ZnVector<ZnByteArray>& keys, ZnVector<std::optional<ZnByteArray>>* values,
                                const ZnEmbeddedDbSnapshotPtr& snapshot = nullptr) const;
    /// Code 0 or 1, or a failure.
    ZnEmbeddedDbStatus contains(ZnByteView key, const ZnEmbeddedDbSnapshotPtr& snapshot = nullptr) const;

    /// The iterator stands on the first record.
    ZnEmbeddedDbIterator scan(const ZnEmbeddedDbRange& range = {}) const;
    /// The records that have this secondary key, in the order of their primary keys.
    ZnEmbeddedDbIterator indexLookup(const ZnString& indexName, ZnByteView secondaryKey,
                                     const ZnEmbeddedDbSnapshotPtr& snapshot = nullptr) const;
    /// Records in the order of (secondary key, primary key), once for each secondary key in the range.
    ZnEmbeddedDbIterator indexScan(const ZnString& indexName, const ZnEmbeddedDbRange& secondaryKeys = {}) const;
    /// Null when the store is not open.
    ZnEmbeddedDbSnapshotPtr snapshot() const;

    /// When it is Ok, all that was committed before the call is on stable storage.
    ZnEmbeddedDbStatus sync();
    /// Writes all records in memory to tables, and waits for it.
    ZnEmbeddedDbStatus flush();

    /// Writes all records in memory to tables, merges the tables of each kind into one, without what was replaced or
    /// removed, and collects garbage. Waits for it; others read and write meanwhile. Takes as much room on the disk
    /// again as the live data, until it is done.
    ZnEmbeddedDbStatus compact();
    /// Writes all records in memory to tables and, when a blob file has 30 percent of bytes or more that no record
    /// refers to, all live records anew, after which the old blob files are removed. Waits for it; others read and
    /// write meanwhile. In a store that nobody writes to, this happens in the background.
    ZnEmbeddedDbStatus collectGarbage();
    /// Lets a store be written to again after failures that can pass: compactions that failed three times in a row.
    /// Gives the error that is left.
    ZnEmbeddedDbStatus resume();

    /// Of a store that was opened to read: shows what is there now, log included. Tables and blob files that are open
    /// already stay open and are not read again, so this costs what has come since, and the log. Readers, snapshots
    /// and iterators of before keep what they see. One refresh at a time; close() waits for one that runs. Code 4 for
    /// a store that is open for writing. After a failure the store shows what it showed before. A directory that
    /// holds another store now wants open().
    ZnEmbeddedDbStatus refresh();
    /// Calls back whenever the writer of this store, which has notifyChanges on, has brought other tables into force:
    /// on this thread's event loop, which must be there until close(), on a fiber, and not again while it runs. Only
    /// the latest of changes in quick succession is told, and none from before: call refresh() once after watch().
    /// Writes to the log alone are not told. The callback may call refresh(), watch() and close(). A second call
    /// replaces the first, an empty function ends it, and so does close(). In a store that is open for writing it
    /// tells of the store's own changes. Code 4: no event loop. Code 6: shared memory cannot be used.
    ZnEmbeddedDbStatus watch(std::function<void(const ZnEmbeddedDbChange&)> callback);

    ZnEmbeddedDbStats stats() const;
    /// Reads everything and checks it. Code 7 when anything is wrong; what, is in `*report` (may be null).
    ZnEmbeddedDbStatus verify(ZnEmbeddedDbVerifyReport* report = nullptr,
                              const ZnEmbeddedDbProgress& progress = {}) const;

private:
    friend struct znEmbeddedDbDetail::StoreAccess_;
    const std::unique_ptr<znEmbeddedDbDetail::Store_> store_;
};
