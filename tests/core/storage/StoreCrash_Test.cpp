// A store that loses its power, its disk or its memory anywhere, compared with a model.

#include "core/storage/StoreModel.h"
#include "core/types/ZnLogger.h"

#include <cerrno>
#include <functional>

namespace {

ZnEmbeddedDbOptions smallOptions() {
    ZnEmbeddedDbOptions options = quietOptions();
    options.memtableSizeBytes = 4096; // some twenty records
    return options;
}

/// Drives a store by random operations, and its model along with it.
class Driver {
public:
    explicit Driver(std::uint64_t seed) : random_(seed) { ZnLogger::instance().setConsoleEnabled(false); }
    ~Driver() { ZnLogger::instance().setConsoleEnabled(true); }

    /// Opens, works, and closes at times, until `count` operations are done or the store refuses to go on.
    void run(int count) {
        if (!open())
            return;
        for (int done = 0; done < count && store_ != nullptr && failedWriteCount_ < 3; ++done)
            step();
    }
    /// What is left when the process ends here: the files as they are.
    void endProcess() {
        files.stopAt(1);
        store_ = nullptr;
    }
    bool open() {
        if (!openStatus().isOk())
            store_ = nullptr;
        return store_ != nullptr;
    }
    /// The store must open, and show something that is possible.
    void check() {
        ASSERT_EQ(openStatus(), kOk);
        const StoreContent content = contentOf(*store_);
        ASSERT_TRUE(model.mayBe(content)) << "lost, or half there: " << ::testing::PrintToString(content) << " of "
                                          << ::testing::PrintToString(model.possible());
        ZnEmbeddedDbVerifyReport report;
        const Status status = store_->verify(&report);
        ASSERT_EQ(status, kOk) << (report.problems.size() > 0 ? report.problems[0] : ZnString());
        model.settle(content);
    }

    MemoryFiles files;
    StoreModel model;

private:
    Status openStatus() {
        store_ = std::make_unique<ZnEmbeddedDb>(files);
        return store_->open("/s", smallOptions());
    }
    void step() {
        switch (random_() % 30) {
        case 0: whenOk(store_->sync()); return;
        case 1: whenOk(store_->flush()); return;
        case 2: snapshots_.push_back(store_->snapshot()); return;
        case 3: snapshots_.clear(); return;
        case 4: // in order, as far as that goes
            snapshots_.clear();
            store_->close();
            open();
            return;
        case 6: whenOk(store_->compact()); return;
        case 7: whenOk(store_->collectGarbage()); return;
        case 8: // enough tables for a compaction in the background
            for (int count = 0; count < 4 && store_->flush().isOk(); ++count)
                write();
            whenOk(store_->flush());
            return;
        case 5: {
            bool isReadable = false;
            const StoreContent content = contentOf(*store_, &isReadable);
            ASSERT_TRUE(!isReadable || model.isNow(content));
            return;
        }
        default: write();
        }
    }
    void whenOk(const Status& status) {
        if (status.isOk())
            model.durable();
    }
    void write() {
        StoreModel::Change change;
        ZnEmbeddedDbBatch batch;
        for (std::uint64_t left = 1 + (random_() % 4 == 0 ? random_() % 4 : 0); left > 0; --left) {
            const std::string key(1, static_cast<char>('a' + random_() % 8));
            std::string value;
            if (random_() % 4 != 0)
                value = std::string(1, static_cast<char>('A' + random_() % 3)) + std::to_string(++valueNumber_) +
                        std::string(random_() % 3 == 0 ? 60 + random_() % 500 : 5, '.');
            if (value.empty())
                batch.remove(key);
            else
                batch.put(key, value, tagsOf(value));
            change.emplace_back(key, value);
        }
        const bool isSynced = random_() % 6 == 0;
        const Status status =
            store_->write(batch, isSynced ? ZnEmbeddedDbDurability::Synced : ZnEmbeddedDbDurability::Buffered);
        if (status.isOk())
            model.committed(change, isSynced);
        else if (++failedWriteCount_ <= 3) // each doubles what is possible
            model.uncertain(change);
    }

    std::mt19937_64 random_;
    std::unique_ptr<ZnEmbeddedDb> store_;
    std::vector<ZnEmbeddedDbSnapshotPtr> snapshots_;
    int valueNumber_ = 0;
    int failedWriteCount_ = 0;
};

/// The n-th operation on the files fails, for every small n and then for ever fewer, until none does; then the power
/// goes, and once more while the store recovers.
void failEveryOperation(std::uint64_t seed, std::function<void(MemoryFiles&, long)> breakAt) {
    long number = 1;
    for (bool wasReached = true; wasReached && !::testing::Test::HasFatalFailure(); number += 1 + number / 100) {
        SCOPED_TRACE("operation " + std::to_string(number) + " of seed " + std::to_string(seed));
        Driver driver(seed);
        std::mt19937_64 random(seed + static_cast<std::uint64_t>(number));
        breakAt(driver.files, number);
        driver.run(35);
        wasReached = driver.files.operationCount() >= number;
        driver.endProcess();
        driver.files.cutPower(random() % 2 == 0 ? &random : nullptr);
        driver.files.stopAt(1 + static_cast<long>(random() % 60));
        driver.open();
        driver.endProcess();
        driver.files.cutPower(&random);
        driver.check();
    }
    EXPECT_TRUE(::testing::Test::HasFatalFailure() || number > 100);
}

TEST(StoreCrash, AnyOperationMayFail) {
    const std::uint64_t seed = testSeed();
    failEveryOperation(seed, [&](MemoryFiles& files, long number) {
        files.failOperation(number, (seed + static_cast<std::uint64_t>(number)) % 2 == 0 ? EIO : ENOSPC);
    });
}

TEST(StoreCrash, ThePowerMayGoAtAnyOperation) {
    failEveryOperation(testSeed(), [](MemoryFiles& files, long number) { files.stopAt(number); });
}

TEST(StoreCrash, AKilledProcessLosesNothingThatWasAcknowledged) {
    const std::uint64_t seed = testSeed();
    for (std::uint64_t round = 0; round < 60 && !HasFatalFailure(); ++round) {
        SCOPED_TRACE("seed " + std::to_string(seed + round));
        Driver driver(seed + round);
        driver.run(static_cast<int>(20 + 3 * round));
        driver.model.durable(); // in the system's memory, which is still there
        driver.endProcess();
        driver.files.stopAt(0);
        driver.check();
    }
}

TEST(StoreCrash, AFullDiskStopsWritesAndNothingElse) {
    Driver driver(testSeed());
    MemoryFiles& files = driver.files;
    ZnEmbeddedDb store(files);
    StoreContent expected;
    ASSERT_EQ(store.open("/s", smallOptions()), kOk);
    files.setFreeBytes(20000);
    int refusedCount = 0;
    for (int number = 0; refusedCount < 20; ++number) {
        const std::string key = "key" + std::to_string(number % 50);
        const std::string value = "A" + std::to_string(number) + std::string(number % 7 == 0 ? 60 : 0, '.');
        const Status status = putTagged(store, key, value);
        if (status.isOk())
            expected[key] = value;
        else
            ++refusedCount;
        ASSERT_TRUE(status.isOk() || status.message().contains("No space left") || status.message().contains("short"))
            << status.message();
    }
    EXPECT_EQ(contentOf(store), expected);
    files.setFreeBytes(1 << 20);
    EXPECT_EQ(store.flush(), kOk);
    EXPECT_EQ(putTagged(store, "more", "B"), kOk);
    expected["more"] = "B";
    store.close();
    ASSERT_EQ(store.open("/s", smallOptions()), kOk);
    EXPECT_EQ(contentOf(store), expected);
}

/// What could not be synced may be gone, whatever the system says later.
TEST(StoreCrash, AfterAFailedSyncNothingIsAcknowledgedAnyMore) {
    for (const bool isSyncCall : {true, false}) {
        MemoryFiles files;
        ZnEmbeddedDb store(files);
        ASSERT_EQ(store.open("/s", smallOptions()), kOk);
        ASSERT_EQ(store.put("a", "A1"), kOk);
        files.failOperation(isSyncCall ? 1 : 2, EIO); // without and with a write before it
        const Status status = isSyncCall ? store.sync() : store.put("b", "B1", {}, ZnEmbeddedDbDurability::Synced);
        EXPECT_EQ(status.code(), Status::IoError);
        EXPECT_TRUE(status.message().contains("FlushFileBuffers failed: 5")) << status.message();
        EXPECT_TRUE(status.message().contains("WAL-")) << status.message();
        EXPECT_EQ(store.put("c", "C1").code(), Status::IoError);
        EXPECT_EQ(store.sync().code(), Status::IoError);
        EXPECT_EQ(store.stats().backgroundError.code(), Status::IoError);
        ZnByteArray value;
        EXPECT_TRUE(store.get("a", &value).isOk()); // reading goes on
    }
}

} // namespace
