// Many threads on one store: what each of them sees must make sense at any moment.

#include "core/storage/StoreModel.h"
#include "support/LogCapture.h"
#include "support/OnThreads.h"

#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace {

using Durability = ZnEmbeddedDbDurability;

ZnEmbeddedDbOptions smallOptions() {
    ZnEmbeddedDbOptions options;
    options.memtableSizeBytes = 4096;
    options.blobThresholdBytes = 30;
    options.maxImmutableMemtables = 2;
    options.idleFlushMs = 5;
    return options;
}

class StoreThreads : public ::testing::Test {
protected:
    LogCapture log_;
    MemoryFiles files_;
    ZnEmbeddedDb store_{files_};
};

TEST_F(StoreThreads, SyncedWritersLoseNothingToAPowerCut) {
    constexpr int kWriterCount = 16;
    constexpr int kVersionCount = 40;
    ZnEmbeddedDbOptions options = smallOptions();
    options.memtableSizeBytes = 64 * 1024;
    ASSERT_EQ(store_.open("/s", options), kOk);
    onThreads(kWriterCount, [&](int writer) {
        for (int version = 1; version <= kVersionCount; ++version) {
            const auto key = "w" + std::to_string(writer) + "-" + std::to_string(version);
            EXPECT_EQ(putTagged(store_, key, "A" + key, Durability::Synced), kOk);
        }
    });
    EXPECT_EQ(store_.stats().batchCount, std::uint64_t(kWriterCount * kVersionCount));
    files_.stopAt(1);
    store_.close();
    files_.cutPower();
    ASSERT_EQ(store_.open("/s", options), kOk);
    EXPECT_EQ(contentOf(store_).size(), std::size_t(kWriterCount * kVersionCount));
    EXPECT_EQ(store_.verify(), kOk);
}

constexpr int kSoakWriterCount = 3;
constexpr int kSoakKeyCount = 150; // of each writer

/// What is known of one key while its writer goes on. Versions count the writer's operations.
struct SoakKey {
    std::atomic<int> acknowledged{0};
    std::atomic<int> removed{0}; // by the latest attempt to remove it
    std::atomic<int> attempted{0};
    bool isGone = true; // by what was acknowledged; its writer's
};

/// One of the two records of a key, which are only ever written and removed together.
std::string soakKey(int writer, int key, char part) {
    return "s" + std::to_string(writer) + "-" + std::to_string(key) + part;
}

std::string soakValue(int version) {
    return std::string(1, static_cast<char>('A' + version % 3)) + std::to_string(version) + "/" +
           std::string(static_cast<std::size_t>(version) * 7919 % 3000, '.');
}

/// Writers that each know what they wrote, and everything else that a store does beside them, until it is closed.
class Soak {
public:
    explicit Soak(ZnEmbeddedDb& store) : store_(store) {}

    void write(int writer, std::uint64_t seed) {
        std::mt19937_64 random(seed);
        for (Status status; status.isOk();) {
            ZnEmbeddedDbBatch batch;
            std::map<int, std::pair<int, bool>> changes; // by key: the version, and whether it is removed
            for (std::uint64_t left = 1 + random() % 4; left > 0; --left) {
                const int key = someKey(&random);
                const int version = ++lastVersion_[writer];
                const std::string value = soakValue(version);
                const bool removes = random() % 5 == 0;
                keys_[writer][key].attempted = version;
                if (removes)
                    keys_[writer][key].removed = version;
                changes[key] = {version, removes};
                for (const char part : {'a', 'b'}) {
                    if (removes)
                        batch.remove(soakKey(writer, key, part));
                    else
                        batch.put(soakKey(writer, key, part), value, tagsOf(value));
                }
            }
            status = store_.write(batch, random() % 50 == 0 ? Durability::Synced : Durability::Default);
            expectOkOrClosed(status);
            for (const auto& [key, change] : changes) {
                if (!status.isOk())
                    return;
                keys_[writer][key].isGone = change.second;
                keys_[writer][key].acknowledged = change.first;
            }
        }
    }
    /// Both records of a key are of the same version, which is never older than what was seen before.
    void read(std::uint64_t seed) {
        std::mt19937_64 random(seed);
        for (Status status; status.isOk();) {
            const int writer = static_cast<int>(random() % kSoakWriterCount);
            const int key = someKey(&random);
            const int floor = keys_[writer][key].acknowledged;
            ZnByteArray value;
            status = store_.get(soakKey(writer, key, 'a'), &value);
            EXPECT_TRUE(status.code() != Status::NotFound || keys_[writer][key].removed >= floor);
            const int seen = status.isOk() ? expectVersion(writer, key, value.view(), floor) : floor;
            ZnVector<ZnByteArray> keys;
            ZnVector<std::optional<ZnByteArray>> values;
            for (const char part : {'a', 'b'})
                keys.append(ZnByteArray(soakKey(writer, key, part)));
            status = store_.multiGet(keys, &values, random() % 2 == 0 ? store_.snapshot() : nullptr);
            expectOkOrClosed(status);
            if (!status.isOk())
                return;
            EXPECT_EQ(values[0] == values[1], true) << "half a batch: " << soakKey(writer, key, ' ');
            if (values[0].has_value())
                expectVersion(writer, key, values[0]->view(), seen);
            else
                EXPECT_GE(keys_[writer][key].removed, seen);
        }
    }
    /// A snapshot shows the same again after a while, by key and by index, and nothing older than it is.
    void lookTwice(std::uint64_t seed) {
        std::mt19937_64 random(seed);
        for (;;) {
            const int writer = static_cast<int>(random() % kSoakWriterCount);
            std::vector<int> floors;
            for (const SoakKey& key : keys_[writer])
                floors.push_back(key.acknowledged);
            ZnEmbeddedDbRange range;
            range.prefix = ZnByteArray(soakKey(writer, 0, ' ').substr(0, 3));
            range.snapshot = store_.snapshot();
            if (range.snapshot == nullptr)
                return;
            const StoreContent content = shown(store_.scan(range));
            expectWholeBatches(content);
            StoreContent tagged;
            for (const auto& [key, value] : content) {
                const int number = std::atoi(key.c_str() + 3);
                expectVersion(writer, number, value, floors[static_cast<std::size_t>(number)]);
                if (value.starts_with("A"))
                    tagged[key] = value;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 30));
            range.reverse = true;
            EXPECT_EQ(shown(store_.scan(range), true) == content, true);
            StoreContent indexed = shown(store_.indexLookup("tag", "A", range.snapshot));
            std::erase_if(indexed, [&](const auto& row) { return !row.first.starts_with(range.prefix.view()); });
            EXPECT_EQ(indexed == tagged, true);
            if (ZnEmbeddedDbIterator latest = store_.indexLookup("tag", "B"); latest.status().isOk())
                expectWholeBatches(shown(std::move(latest)));
        }
    }
    void maintain(std::uint64_t seed) {
        std::mt19937_64 random(seed);
        for (Status status; status.isOk();) {
            const auto choice = random() % 6;
            status = choice == 0   ? store_.compact()
                     : choice == 1 ? store_.verify()
                     : choice < 4  ? store_.collectGarbage()
                                   : store_.flush();
            expectOkOrClosed(status);
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 20));
        }
    }
    /// With nobody at work: exactly what was acknowledged. Gives its size.
    std::size_t check() {
        std::size_t byteCount = 0;
        for (int writer = 0; writer < kSoakWriterCount; ++writer) {
            for (int key = 0; key < kSoakKeyCount; ++key) {
                const SoakKey& known = keys_[writer][key];
                const std::string expected = known.isGone ? "code 1" : soakValue(known.acknowledged);
                for (const char part : {'a', 'b'}) {
                    EXPECT_EQ(valueOf(store_, soakKey(writer, key, part)) == expected, true)
                        << soakKey(writer, key, part);
                    byteCount += known.isGone ? 0 : expected.size() + soakKey(writer, key, part).size();
                }
            }
        }
        return byteCount;
    }

private:
    /// Half of the time one of a few, so that threads meet.
    static int someKey(std::mt19937_64* random) {
        return static_cast<int>((*random)() % ((*random)() % 2 == 0 ? 3 : kSoakKeyCount));
    }
    static void expectOkOrClosed(const Status& status) {
        EXPECT_TRUE(status.isOk() || status.code() == Status::NotAvailable) << status.message();
    }
    static void expectWholeBatches(const StoreContent& content) {
        for (const auto& [key, value] : content) {
            const auto twin = content.find(key.substr(0, key.size() - 1) + (key.ends_with('a') ? 'b' : 'a'));
            EXPECT_EQ(twin != content.end() && twin->second == value, true) << "half a batch: " << key;
        }
    }
    int expectVersion(int writer, int key, std::string_view value, int floor) {
        int version = -1;
        std::from_chars(value.data() + 1, value.data() + value.size(), version);
        EXPECT_EQ(value == soakValue(version), true) << value;
        EXPECT_GE(version, floor);
        EXPECT_LE(version, keys_[writer][key].attempted);
        return version;
    }

    ZnEmbeddedDb& store_;
    SoakKey keys_[kSoakWriterCount][kSoakKeyCount];
    int lastVersion_[kSoakWriterCount] = {};
};

/// For three seconds, or ZN_SOAK_SECONDS.
TEST_F(StoreThreads, NothingIsLostAndNoSpaceBesideEverythingThatAStoreDoes) {
    const char* seconds = std::getenv("ZN_SOAK_SECONDS");
    const std::chrono::seconds duration(seconds == nullptr ? 3 : std::atoi(seconds));
    const auto until = std::chrono::steady_clock::now() + duration;
    const std::uint64_t seed = testSeed();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    Soak soak(store_);
    do {
        ZnEmbeddedDbOptions options = smallOptions();
        options.memtableSizeBytes = std::uint64_t(4096) << (random() % 6);
        options.blobThresholdBytes = random() % 3 == 0 ? 1000 : 100;
        options.maxLevel1Tables = static_cast<std::uint32_t>(random() % 4);
        options.verifyFilters = random() % 4 != 0;
        ASSERT_EQ(store_.open("/s", options), kOk);
        soak.check();
        onThreads(kSoakWriterCount + 7, [&](int thread) {
            const std::uint64_t threadSeed = seed + static_cast<std::uint64_t>(thread);
            if (thread < kSoakWriterCount)
                soak.write(thread, threadSeed);
            else if (thread < kSoakWriterCount + 3)
                soak.read(threadSeed);
            else if (thread < kSoakWriterCount + 5)
                soak.lookTwice(threadSeed);
            else if (thread == kSoakWriterCount + 5)
                soak.maintain(threadSeed);
            else {
                std::this_thread::sleep_for(std::chrono::milliseconds(250));
                store_.close();
            }
        });
    } while (std::chrono::steady_clock::now() < until && !HasFailure());
    ASSERT_EQ(store_.open("/s", smallOptions()), kOk);
    const std::size_t liveBytes = soak.check();
    ASSERT_EQ(store_.compact(), kOk);
    soak.check();
    store_.close(); // with the background work
    ASSERT_EQ(store_.open("/s", smallOptions()), kOk);
    const ZnEmbeddedDbStats stats = store_.stats();
    EXPECT_LE(stats.tableBytes + stats.blobBytes, liveBytes + liveBytes / 2);
    ZnEmbeddedDbVerifyReport report;
    EXPECT_EQ(store_.verify(&report), kOk);
    EXPECT_TRUE(report.orphans.isEmpty()) << report.orphans[0];
}

} // namespace
