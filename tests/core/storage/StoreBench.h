#pragma once

#include "core/storage/StoreModel.h"
#include "core/storage/SyncGates.h"
#include "core/storage/embeddeddb/Store_.h"
#include "core/storage/embeddeddb/TableWriter_.h"
#include "support/LogCapture.h"

#include <memory>
#include <string>
#include <thread>
#include <vector>

/// A store, what it must hold, and a hand on its background work.
struct StoreBench {
    using TableList = znEmbeddedDbDetail::TableList_;

    explicit StoreBench(const ZnEmbeddedDbOptions& options = quietOptions()) {
        core().syncPoints.setHandler([gates = gates](std::string_view name) { gates->reach(std::string(name)); });
        open(options);
    }
    znEmbeddedDbDetail::Store_& inner() { return znEmbeddedDbDetail::StoreAccess_::of(store); }
    znEmbeddedDbDetail::StoreCore_& core() { return inner().core; }
    void open(const ZnEmbeddedDbOptions& options = quietOptions()) { ASSERT_EQ(store.open("/s", options), kOk); }
    /// An empty value has no tag, and so no entry in the index.
    void put(const std::string& key, const std::string& value) {
        EXPECT_EQ(putTagged(store, key, value), kOk);
        expected[key] = value;
    }
    void remove(const std::string& key) {
        EXPECT_EQ(store.remove(key), kOk);
        expected.erase(key);
    }
    void flush() { EXPECT_EQ(store.flush(), kOk); }
    void putAndFlush(const std::string& key, const std::string& value) {
        put(key, value);
        flush();
    }
    /// The next writes leave the secondary keys of what they replace in the index, as in a race, or not.
    void setRetires(bool retires) { inner().hasIndexes = retires; }

    /// Begins `work` on a thread of its own, which is held at the sync point when this returns.
    template <typename Work>
    std::thread heldAt(const std::string& point, Work work) {
        gates->hold(point);
        std::thread thread(work);
        EXPECT_TRUE(gates->isHeld(point));
        return thread;
    }
    template <typename Condition>
    bool await(Condition condition) {
        const auto until = std::chrono::steady_clock::now() + kDeadline;
        for (;;) {
            {
                const ZnMutexLocker locker(core().mutex);
                if (condition())
                    return true;
                core().workerCondition.wait_for(core().mutex, std::chrono::milliseconds(2));
            }
            if (std::chrono::steady_clock::now() > until)
                return false;
        }
    }
    void awaitQuiet() {
        EXPECT_TRUE(await([this]() ZN_NO_THREAD_SAFETY_ANALYSIS {
            return core().flushFirstFileId == 0 && !core().compactionRunning && !core().blobGcRunning;
        }));
    }
    znEmbeddedDbDetail::TableViews_ tableViews() {
        const ZnMutexLocker locker(core().mutex);
        return *core().tableViews;
    }
    /// The only table of that kind.
    std::shared_ptr<const znEmbeddedDbDetail::TableHandle_> table(const ZnString& indexName = {}) {
        const auto views = tableViews();
        const TableList list = indexName.isEmpty() ? views.primaryView : views.indexViews.value(indexName);
        EXPECT_EQ(list.size(), 1U);
        return list.front();
    }
    void check(bool mayHaveOrphans = false) {
        EXPECT_EQ(contentOf(store), expected);
        ZnEmbeddedDbVerifyReport report;
        EXPECT_EQ(store.verify(&report), kOk);
        EXPECT_TRUE(mayHaveOrphans || report.orphans.isEmpty()) << report.orphans[0];
    }

    LogCapture log;
    MemoryFiles files;
    ZnEmbeddedDb store{files};
    std::shared_ptr<Gates> gates = std::make_shared<Gates>();
    StoreContent expected;
};

/// A table of level 0 among the files of the store "/s"; of the index "tag" if it is not to be one of records.
inline std::shared_ptr<const znEmbeddedDbDetail::TableHandle_>
writtenTable(MemoryFiles& files, std::uint64_t id, const std::vector<znEmbeddedDbDetail::TableRecord_>& records,
             bool isIndex = false) {
    using namespace znEmbeddedDbDetail;
    TableMeta_ meta;
    meta.kind = isIndex ? kIndexTable : kPrimaryTable;
    meta.fileId = id;
    meta.indexName = isIndex ? "tag" : "";
    EXPECT_EQ(writeTable(files, "/s/tmp", "/s/tables", &meta, records), kOk);
    const auto table = std::make_shared<TableHandle_>();
    Status status;
    EXPECT_TRUE(table->open(files, "/s", meta, {}, &status)) << status.message();
    return table;
}
