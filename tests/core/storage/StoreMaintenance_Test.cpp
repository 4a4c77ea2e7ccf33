// Merging of tables and collecting of garbage, beside everything else that a store does.

#include "core/storage/StoreBench.h"

#include <cerrno>
#include <optional>

using namespace znEmbeddedDbDetail;

namespace {

const std::string kTail(50, '.'); // makes a value one for a blob file

struct Bench : StoreBench {
    using StoreBench::StoreBench;

    void flushUntilHeldAt(const std::string& point) {
        heldAt(point, [this] { flush(); }).join(); // what is held is in the background
    }
    /// What is held at `point` goes on while the store waits for its end, or is left behind.
    void closeWhileHeldAt(const std::string& point, bool isAwaited) {
        inner().closeWaitMs = isAwaited ? 20000 : 3;
        std::thread closing([this] { store.close(); });
        if (isAwaited) {
            awaitClosing();
            gates->letGo(point);
        }
        closing.join();
    }
    /// Makes the next garbage collection rewrite everything.
    void leaveBehind(const char* name = "BLOB-1.dat") { files.put(ZnString("/s/blobs/") + name, "left"); }
    void awaitClosing() {
        EXPECT_TRUE(await([this]() ZN_NO_THREAD_SAFETY_ANALYSIS { return core().closing; }));
    }
    /// "primary 3+1, tag 4+0": tables of level 0 and of level 1.
    std::string tables() {
        std::map<std::string, std::pair<int, int>> counts;
        const ZnMutexLocker locker(core().mutex);
        for (const TableMeta_& table : core().manifest.tables) {
            auto& [level0, level1] = counts[table.indexName.isEmpty() ? "primary" : table.indexName.str()];
            ++(table.level == 0 ? level0 : level1);
        }
        std::string text;
        for (const auto& [name, count] : counts)
            text += (text.empty() ? "" : ", ") + name + " " + std::to_string(count.first) + "+" +
                    std::to_string(count.second);
        return text;
    }
    std::uint64_t manifestId() {
        const ZnMutexLocker locker(core().mutex);
        return core().manifest.manifestId;
    }
    std::vector<TableMeta_> tablesOnDisk() {
        std::uint64_t id = 0;
        ManifestState_ state;
        EXPECT_EQ(readCurrent(files, "/s", &id), kOk);
        EXPECT_EQ(readManifest(files, "/s", id, &state), kOk);
        return state.tables;
    }
    std::set<std::string> blobs() const {
        std::set<std::string> names;
        for (const ZnString& path : files.paths())
            if (path.startsWith("/s/blobs/"))
                names.insert(path.str().substr(9));
        return names;
    }
    /// Four tables of each kind, or a blob file of which nothing is used; up to the flush that begins the work.
    void prepare(bool isGarbage) {
        for (int count = 1; count < (isGarbage ? 2 : 4); ++count)
            putAndFlush("a", std::to_string(count) + (isGarbage ? kTail : ""));
        put("a", "Z" + (isGarbage ? kTail : ""));
        awaitQuiet();
    }
};

const char* const kPoints[] = {"compaction.begun",     "compaction.pinned", "compaction.merged", "compaction.opened",
                               "compaction.committed", "gc.begun",          "gc.observed",       "gc.decided",
                               "gc.rewritten",         "gc.committed"};

bool isGarbagePoint(std::string_view point) {
    return point.starts_with("gc.");
}

TEST(StoreMaintenance, FourTablesOfOneKindHaveAllOfLevel0Merged) {
    struct Row {
        const char* steps; // p: a record, t: one with a tag, g: all records go into one table of level 1; each flushed
        const char* tables;
        std::uint32_t maxLevel1Tables = 0;
    };
    constexpr Row kRows[] = {
        {"ppp", "primary 3+0"},
        {"pppp", "primary 0+1"},
        {"ttt", "primary 3+0, tag 3+0"},
        {"ptptt", "primary 1+1, tag 1+1"},
        {"tgttt", "primary 0+2, tag 0+1"},
        {"tgptt", "primary 3+1, tag 3+0"},
        {"ppppppppp", "primary 1+2"},
        {"ppppppppp", "primary 1+1", 1},
        {"tttttttttttttttt", "primary 0+1, tag 0+1", 3},
        {"tttttttttttttttt", "primary 0+4, tag 0+4", 4},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(std::string(row.steps) + " " + std::to_string(row.maxLevel1Tables));
        ZnEmbeddedDbOptions options = quietOptions();
        options.maxLevel1Tables = row.maxLevel1Tables;
        Bench bench(options);
        int number = 0;
        for (const char* step = row.steps; *step != '\0'; ++step, bench.awaitQuiet()) {
            if (*step != 'g') {
                bench.putAndFlush("k" + std::to_string(++number), *step == 't' ? "T" : "");
                continue;
            }
            bench.leaveBehind();
            EXPECT_EQ(bench.store.collectGarbage(), kOk);
        }
        EXPECT_EQ(bench.tables(), row.tables);
        bench.check();
    }
}

TEST(StoreMaintenance, CompactLeavesNothingOfWhatWasRemoved) {
    Bench bench;
    bench.putAndFlush("a", "A" + kTail);
    bench.setRetires(false); // leaves an entry in the index that leads to nothing
    bench.remove("a");
    ASSERT_EQ(bench.store.compact(), kOk);
    EXPECT_EQ(bench.tables(), "");
    EXPECT_TRUE(bench.blobs().empty());
    bench.check();
}

/// The compaction is handed tables that a garbage collection is just taking out of force.
TEST(StoreMaintenance, WhatIsGoingOutOfForceIsNotMerged) {
    Bench bench;
    bench.prepare(true);
    bench.flushUntilHeldAt("gc.rewritten");
    bench.gates->hold("manifest.begun");
    bench.gates->letGo("gc.rewritten");
    ASSERT_TRUE(bench.gates->isHeld("manifest.begun"));
    const std::uint64_t manifestId = bench.manifestId();
    std::thread compaction([&] { EXPECT_EQ(bench.store.compact(), kOk); });
    EXPECT_TRUE(bench.await([&] { return bench.gates->countOf("compaction.begun") == 1; }));
    bench.gates->hold("compaction.pinned");
    EXPECT_FALSE(bench.gates->isHeld("compaction.pinned", std::chrono::milliseconds(50)));
    bench.gates->letGo("manifest.begun");
    ASSERT_TRUE(bench.gates->isHeld("compaction.pinned"));
    bench.gates->letGo("compaction.pinned");
    compaction.join();
    EXPECT_EQ(bench.tables(), "primary 0+1, tag 0+1");
    EXPECT_EQ(bench.manifestId(), manifestId + 2);
    EXPECT_EQ(bench.store.stats().compactionCount, 1U); // of the index
    bench.check();
}

/// Whether the store waits for it or not; then it ends beside the same store, opened anew.
TEST(StoreMaintenance, ClosingEndsItBeforeItChangesAnything) {
    for (const char* point : kPoints) {
        for (const bool isAwaited : {true, false}) {
            SCOPED_TRACE(std::string(point) + (isAwaited ? "" : ", not awaited"));
            Bench bench;
            bench.prepare(isGarbagePoint(point));
            bench.flushUntilHeldAt(point);
            const std::vector<TableMeta_> before = bench.tablesOnDisk();
            bench.closeWhileHeldAt(point, isAwaited);
            EXPECT_EQ(bench.tablesOnDisk() == before, true);
            bench.open();
            bench.putAndFlush("b", "B" + kTail);
            if (!isAwaited)
                bench.gates->letGo(point);
            EXPECT_TRUE(bench.await([&] { return bench.inner().threadPool.activeCount() == 0; }));
            bench.awaitQuiet();
            EXPECT_EQ(bench.store.stats().compactionFailedCount, 0U);
            bench.check();
        }
    }
}

TEST(StoreMaintenance, WhoWaitsWhileTheStoreClosesIsTold) {
    ZnEmbeddedDbOptions options = quietOptions();
    options.memtableSizeBytes = 4096;
    options.maxImmutableMemtables = 1;
    Bench bench(options);
    bench.gates->hold("flush.written");
    std::vector<std::thread> waiting;
    std::atomic<int> toldCount{0};
    for (int writer = 0; writer < 3; ++writer)
        waiting.emplace_back([&] {
            Status status;
            while (status.isOk())
                status = bench.store.put("k", std::string(30, '.'));
            EXPECT_EQ(status.code(), Status::NotAvailable);
            toldCount += status.message() == "database is closing" ? 1 : 0; // else it came later
        });
    ASSERT_TRUE(bench.gates->isHeld("flush.written"));
    waiting.emplace_back([&] { EXPECT_EQ(bench.store.compact().code(), Status::NotAvailable); });
    EXPECT_TRUE(bench.await([&]() ZN_NO_THREAD_SAFETY_ANALYSIS { return bench.inner().flushes.fullCount() >= 1; }));
    std::thread closing([&] { bench.store.close(); });
    bench.awaitClosing();
    for (std::thread& thread : waiting)
        thread.join(); // while the flush is still held
    EXPECT_GT(toldCount, 0);
    for (const Status& status : {bench.store.sync(), bench.store.put("k", "v"), bench.store.flush(),
                                 bench.store.compact(), bench.store.collectGarbage(), bench.store.resume()})
        EXPECT_EQ(status.code(), Status::NotAvailable);
    bench.gates->letGo("flush.written");
    closing.join();
}

/// Nobody waits for ever for work that closing leaves behind.
TEST(StoreMaintenance, WhoAskedForWorkThatClosingPreventsIsTold) {
    for (const std::string point : {"compaction.pinned", "gc.begun", "gc.rewritten"}) {
        SCOPED_TRACE(point);
        Bench bench;
        bench.putAndFlush("a", "A");
        bench.awaitQuiet();
        bench.leaveBehind();
        std::thread asking = bench.heldAt(point, [&] {
            const Status status = isGarbagePoint(point) ? bench.store.collectGarbage() : bench.store.compact();
            EXPECT_EQ(status, Status(Status::NotAvailable, "database is closing"));
        });
        bench.closeWhileHeldAt(point, false);
        asking.join();
        bench.gates->letGo(point);
    }
}

/// Everything that they do on the disk fails once; then the store goes on, unless a sync failed.
TEST(StoreMaintenance, AFailureLeavesWhatIsInForce) {
    for (const bool isGarbage : {false, true}) {
        long number = 1;
        for (bool wasReached = true; wasReached && !HasFatalFailure(); ++number) {
            SCOPED_TRACE((isGarbage ? "gc, operation " : "compaction, operation ") + std::to_string(number));
            Bench bench;
            bench.prepare(isGarbage);
            const char* point = isGarbage ? "gc.begun" : "compaction.begun";
            bench.flushUntilHeldAt(point);
            const std::vector<TableMeta_> before = bench.tablesOnDisk();
            bench.files.failOperation(number, EIO);
            bench.gates->letGo(point);
            bench.awaitQuiet();
            wasReached = bench.files.operationCount() >= number;
            bench.files.failOperation(0, 0);
            const ZnEmbeddedDbStats stats = bench.store.stats();
            EXPECT_EQ(!stats.backgroundError.isOk(), bench.core().files.hasFailed());
            const bool isDone = stats.compactionCount + stats.blobGcCount == 1;
            EXPECT_TRUE(wasReached || isDone);
            EXPECT_EQ(bench.tablesOnDisk() == before, !isDone);
            bench.check(wasReached);
            if (stats.backgroundError.isOk() && !isDone) { // the next flush is the next attempt
                bench.flush();
                bench.putAndFlush("b", "B");
                bench.awaitQuiet();
                EXPECT_EQ(bench.store.stats().compactionCount + bench.store.stats().blobGcCount, 1U);
            }
            bench.store.close();
            bench.open();
            bench.awaitQuiet();
            bench.check();
        }
        EXPECT_GT(number, 20);
    }
}

TEST(StoreMaintenance, ThreeFailuresInARowStopWritingUntilSomebodyResumes) {
    for (const bool hasSyncFailed : {false, true}) {
        Bench bench;
        bench.gates->fail("compaction.merged", 5);
        const auto failOnce = [&](int number) {
            bench.put("a", "A" + std::to_string(number));
            static_cast<void>(bench.store.flush()); // which may see already what it has begun
            bench.awaitQuiet();
        };
        for (int number = 1; number <= 5; ++number)
            failOnce(number);
        EXPECT_EQ(bench.store.resume(), kOk); // nothing to do
        EXPECT_EQ(bench.store.stats().compactionFailedCount, 2U);
        failOnce(6);
        const Status error = bench.store.put("b", "B");
        EXPECT_EQ(error.code(), Status::IoError);
        EXPECT_TRUE(error.message().startsWith("compaction failed three times in a row: ")) << error.message();
        EXPECT_EQ(bench.store.stats().backgroundError, error);
        EXPECT_EQ(bench.store.compact(), error);
        EXPECT_EQ(bench.store.collectGarbage(), error);
        if (hasSyncFailed) {
            bench.core().files.noteSync(EIO, "/s/file");
            EXPECT_EQ(bench.store.resume().code(), Status::IoError);
            EXPECT_TRUE(bench.store.put("b", "B").message().contains("/s/file"));
            continue;
        }
        EXPECT_EQ(bench.store.resume(), kOk); // and two failures more, which are the first again
        bench.awaitQuiet();
        failOnce(7);
        failOnce(8);
        EXPECT_EQ(bench.store.stats().compactionFailedCount, 5U);
        EXPECT_EQ(bench.tables(), "primary 0+1, tag 0+1");
        bench.check();
    }
}

TEST(StoreMaintenance, GarbageIsCollectedFrom30PercentOn) {
    struct Row {
        const char* name;
        std::size_t liveBytes;
        std::size_t deadBytes;
        const char* leftBehind;
        bool isCollected;
    };
    constexpr Row kRows[] = {
        {"70 percent live", 700, 300, nullptr, true},     {"71 percent live", 710, 290, nullptr, false},
        {"nothing live", 0, 700, nullptr, true},          {"no blob file", 0, 0, nullptr, false},
        {"a stranger", 0, 0, "BLOB-1.dat", true},         {"a stranger beside", 700, 0, "BLOB-1.dat", true},
        {"no id we write", 700, 0, "BLOB-01.dat", false}, {"an id of later", 0, 0, "BLOB-1000.dat", false},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        Bench bench;
        bench.put("live", std::string(row.liveBytes, 'L'));
        bench.put("dead", std::string(row.deadBytes, 'D'));
        if (row.leftBehind != nullptr)
            bench.leaveBehind(row.leftBehind);
        bench.flush();
        bench.awaitQuiet();
        bench.remove("dead");
        bench.flush();
        bench.awaitQuiet();
        const ZnEmbeddedDbStats stats = bench.store.stats();
        EXPECT_EQ(stats.blobGcCount, row.isCollected ? 1U : 0U);
        EXPECT_EQ(bench.gates->countOf("gc.decided"), row.isCollected ? 1 : 0);
        EXPECT_TRUE(!row.isCollected || bench.blobs().size() == (row.liveBytes > 0 ? 1U : 0U));
        bench.check(true);
    }
}

/// A run of the background is void when the store was not left alone.
TEST(StoreMaintenance, ABackgroundCollectionGivesWayAndLeavesNothing) {
    enum { Write, Flush, Compact };
    for (const int beside : {Write, Flush, Compact}) {
        SCOPED_TRACE(beside);
        Bench bench;
        bench.prepare(true);
        bench.flushUntilHeldAt("gc.rewritten");
        std::thread compacting;
        const std::size_t blobCount = bench.blobs().size();
        if (beside == Compact)
            compacting = bench.heldAt("compaction.begun", [&] { EXPECT_EQ(bench.store.compact(), kOk); });
        else
            bench.put("b", "B");
        if (beside == Flush)
            bench.flush();
        bench.gates->letGo("gc.rewritten");
        EXPECT_TRUE(bench.await([&] { return bench.core().counters->blobGcAbandonedCount.value() == 1; }));
        if (beside == Write) {
            bench.awaitQuiet();
            EXPECT_EQ(bench.blobs().size(), blobCount - 1);
            EXPECT_EQ(bench.tables(), "primary 2+0, tag 2+0");
        }
        if (beside == Compact) {
            bench.gates->letGo("compaction.begun");
            compacting.join();
        }
        bench.flush();
        bench.awaitQuiet();
        EXPECT_TRUE(bench.await([&] { return bench.core().counters->blobGcCount.value() == 1; }));
        bench.awaitQuiet();
        EXPECT_EQ(bench.blobs().size(), 1U);
        bench.check();
    }
}

/// A collection that was asked for goes on beside writes and flushes, whatever the order of their steps.
TEST(StoreMaintenance, ADemandedCollectionAndAFlushDoNotTakeEachOthersFiles) {
    const std::vector<std::string> points = {"gc.begun", "gc.observed", "gc.decided", "gc.rewritten", "gc.committed"};
    for (std::size_t first = 0; first < points.size(); ++first) {
        for (std::size_t last = first + 1; last <= points.size(); ++last) {
            const std::string begin = points[first];
            const std::string end = last < points.size() ? points[last] : "";
            SCOPED_TRACE("flush from " + begin + " to " + end);
            Bench bench;
            bench.put("a", "A" + kTail);
            bench.putAndFlush("b", "B" + kTail);
            bench.awaitQuiet();
            bench.leaveBehind();
            std::thread collecting = bench.heldAt(begin, [&] { EXPECT_EQ(bench.store.collectGarbage(), kOk); });
            bench.put("a", "C" + kTail);
            bench.remove("b");
            bench.put("c", "A" + kTail);
            std::thread flushing = bench.heldAt("flush.written", [&] { bench.flush(); });
            if (!end.empty())
                bench.gates->hold(end);
            bench.gates->letGo(begin);
            if (end.empty())
                collecting.join();
            else
                EXPECT_TRUE(bench.gates->isHeld(end));
            bench.gates->letGo("flush.written");
            flushing.join();
            if (!end.empty()) {
                bench.gates->letGo(end);
                collecting.join();
            }
            bench.awaitQuiet();
            bench.check();
            bench.store.close();
            bench.open();
            bench.check();
        }
    }
}

/// Files that only older views need stay exactly as long as these.
TEST(StoreMaintenance, ViewsKeepTheBlobFilesThatTheySee) {
    for (const bool isIterator : {false, true}) {
        Bench bench;
        ZnEmbeddedDbSnapshotPtr snapshot;
        std::optional<ZnEmbeddedDbIterator> records;
        bench.put("a", "A" + kTail);
        bench.putAndFlush("b", "B" + kTail);
        bench.awaitQuiet();
        bench.leaveBehind();
        // What this flush writes stays in force beyond the collection.
        std::thread collecting = bench.heldAt("gc.rewritten", [&] { EXPECT_EQ(bench.store.collectGarbage(), kOk); });
        bench.putAndFlush("c", "C" + kTail);
        const StoreContent then = bench.expected;
        if (isIterator)
            records.emplace(bench.store.scan());
        else
            snapshot = bench.store.snapshot();
        bench.gates->letGo("gc.rewritten");
        collecting.join();
        const std::size_t keptCount = bench.blobs().size(); // what the view needs, and the new one
        for (const char* value : {"D", "E", "F"}) {
            for (const char* key : {"a", "b", "c"})
                bench.put(key, value + kTail);
            ASSERT_EQ(bench.store.collectGarbage(), kOk);
            bench.awaitQuiet();
            EXPECT_EQ(bench.blobs().size(), keptCount);
        }
        ZnEmbeddedDbRange range;
        range.snapshot = std::exchange(snapshot, nullptr);
        if (!isIterator)
            records.emplace(bench.store.scan(range));
        EXPECT_EQ(shown(*std::exchange(records, std::nullopt)), then);
        range.snapshot = nullptr;
        EXPECT_EQ(bench.blobs().size(), 1U);
        bench.check();
    }
}

/// Whatever of the log the power cut leaves: nothing comes back that was in tables, and gone from them again.
TEST(StoreMaintenance, WhatCompactDroppedDoesNotComeBackFromATornLog) {
    for (std::uint64_t seed = 1; seed <= 30; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937_64 random(seed);
        Bench bench;
        bench.put("a", "A");
        bench.put("b", "B");
        bench.remove("b");
        if (seed % 2 == 0)
            bench.remove("a");
        ASSERT_EQ(bench.store.compact(), kOk);
        bench.files.stopAt(1);
        bench.store.close();
        bench.files.cutPower(&random);
        bench.open();
        bench.check();
    }
}

/// What runs out of memory is a failure like others, and nobody waits for it for ever.
TEST(StoreMaintenance, AnExceptionEndsTheWorkAndNothingElse) {
    for (const std::string point : {"flush.written", "manifest.begun", "compaction.begun", "compaction.merged",
                                    "gc.begun", "gc.decided", "gc.rewritten"}) {
        SCOPED_TRACE(point);
        Bench bench;
        bench.putAndFlush("a", "A" + kTail);
        bench.awaitQuiet();
        bench.leaveBehind();
        if (point == "flush.written")
            bench.put("a", "B" + kTail);
        bench.gates->fail(point, 1);
        const Status status = isGarbagePoint(point) ? bench.store.collectGarbage() : bench.store.compact();
        EXPECT_EQ(status, Status(Status::IoError, "ended by an exception: std::bad_alloc"));
        bench.awaitQuiet();
        EXPECT_EQ(bench.store.compact(), kOk);
        EXPECT_EQ(bench.tables(), "primary 0+1, tag 0+1");
        bench.awaitQuiet();
        bench.check(true);
    }
}

/// Until it is open nothing works in the background: an opening that fails would not wait for it.
TEST(StoreMaintenance, AnOpeningThatFailsHasBegunNothing) {
    long number = 1;
    for (bool wasReached = true; wasReached; ++number) {
        SCOPED_TRACE(number);
        Bench bench;
        for (int count = 0; count < 3; ++count)
            bench.putAndFlush("a", "A");
        bench.put("a", "B");
        bench.files.stopAt(1);
        bench.store.close();
        bench.files.stopAt(0);
        bench.files.failOperation(number, EIO);
        const bool isOpen = bench.store.open("/s", quietOptions()).isOk();
        EXPECT_TRUE(isOpen || bench.gates->countOf("compaction.begun") == 0);
        bench.awaitQuiet();
        wasReached = bench.files.operationCount() >= number;
        bench.files.failOperation(0, 0);
        bench.store.close();
        bench.open();
        bench.awaitQuiet();
        bench.check();
    }
    EXPECT_GT(number, 20);
}

} // namespace
