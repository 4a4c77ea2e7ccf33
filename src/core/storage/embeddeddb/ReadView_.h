#pragma once

#include "core/storage/embeddeddb/BlobEpoch_.h"
#include "core/storage/embeddeddb/BlobFiles_.h"
#include "core/storage/embeddeddb/SharedMemtable_.h"
#include "core/storage/embeddeddb/StoreCounters_.h"
#include "core/storage/embeddeddb/TableHandle_.h"
#include "core/types/ZnByteArray.h"
#include "core/types/ZnMap.h"
#include "core/types/ZnString.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace znEmbeddedDbDetail {

/// Tables of one kind, the newest of the newest level first: the first that has a key has its newest record.
using TableList_ = std::vector<std::shared_ptr<const TableHandle_>>;

/// The tables in force. Thread: does not change; any.
struct TableViews_ {
    TableList_ primaryView;
    ZnMap<ZnString, TableList_> indexViews;
    ZnByteArray largestPrimaryKey; // no table has a greater key; null without tables
};

/// What a reader reads: all that a store held at one moment.
///
/// Sources in the order in which the first hit for a key decides: the active memtable, the sealed ones from
/// the first to the last, the tables in the order of their list. Thread: any. Only the content of `active`
/// changes, under its lock, and in the view of a snapshot not even that: it has none. Owner: shared by the
/// store, readers, iterators and snapshots; keeps alive all that it refers to.
struct ReadView_ {
    std::shared_ptr<SharedMemtable_> active;              // null in the view of a snapshot or an iterator
    std::vector<std::shared_ptr<SharedMemtable_>> sealed; // newest first
    std::shared_ptr<const TableViews_> tables;            // never null
    std::shared_ptr<BlobFiles_> blobs;                    // never null, nor are the counters
    std::shared_ptr<StoreCounters_> counters;
    std::shared_ptr<BlobEpoch_> blobEpoch; // keeps the blob files; never null
};
using ReadViewPtr_ = std::shared_ptr<const ReadView_>;

/// A sealed memtable for looking up single keys: that takes no order, so nobody waits until it is sorted.
inline const Memtable_& unsorted(const SharedMemtable_& sealed) ZN_NO_THREAD_SAFETY_ANALYSIS {
    return sealed.table;
}

} // namespace znEmbeddedDbDetail
