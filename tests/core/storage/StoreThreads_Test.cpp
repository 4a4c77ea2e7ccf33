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
const ZnEmbeddedDbStatus kOk;
using Versions = std::map<std::string, int>; // by key
constexpr int kPartCount = 3;                // keys that are only ever written together

ZnEmbeddedDbOptions smallOptions() {
    ZnEmbeddedDbOptions options;
    options.memtableSizeBytes = 4096;
    options.blobThresholdBytes = 30;
    options.maxImmutableMemtables = 2;
    options.idleFlushMs = 5;
    return options;
}

ZnByteArray keyOf(int writer, int part) {
    return ZnByteArray("w" + std::to_string(writer) + "-" + std::to_string(part));
}

/// Behind the tag stands the version; some values are long enough for a blob file.
std::string valueOf(int version) {
    return std::string(1, static_cast<char>('A' + version % 3)) + std::to_string(version) +
           (version % 4 == 0 ? std::string(40, '.') : "");
}

int versionOf(std::string_view value) {
    int version = -1;
    std::from_chars(value.data() + (value.empty() ? 0 : 1), value.data() + value.size(), version);
    EXPECT_EQ(value, valueOf(version));
    return version;
}

ZnEmbeddedDbStatus writeVersion(ZnEmbeddedDb& store, int writer, int version) {
    const std::string value = valueOf(version);
    ZnEmbeddedDbBatch batch;
    for (int part = 0; part < kPartCount; ++part)
        batch.put(keyOf(writer, part), value, tagsOf(value));
    return store.write(batch, version % 16 == 0 ? Durability::Synced : Durability::Buffered);
}

/// What `records` show, which must be in the order of their keys.
Versions versionsOf(ZnEmbeddedDbIterator records, bool reverse = false) {
    Versions versions;
    for (std::string last; records.valid(); records.next()) {
        EXPECT_TRUE(last.empty() || (reverse ? records.key() < last : records.key() > last)) << last;
        last = std::string(records.key());
        versions[last] = versionOf(records.value());
    }
    EXPECT_EQ(records.status(), kOk);
    return versions;
}

/// One look at the store in one of several ways. Empty, or the versions of all keys of one moment.
Versions lookAt(const ZnEmbeddedDb& store, int writer, int round) {
    ZnEmbeddedDbRange range;
    range.prefix = ZnByteArray(keyOf(writer, 0).view().substr(0, 3));
    range.reverse = round % 2 == 0;
    range.snapshot = round % 3 == 0 ? store.snapshot() : nullptr;
    if (round % 4 == 0)
        return versionsOf(store.scan(range), range.reverse);
    if (round % 4 == 1) { // all keys of a version have its tag, so the index shows them all, or none
        Versions versions;
        for (auto& [key, version] : versionsOf(store.indexLookup("tag", valueOf(round).substr(0, 1))))
            if (key.starts_with(range.prefix.view()))
                versions[key] = version;
        return versions;
    }
    ZnVector<ZnByteArray> keys;
    ZnVector<std::optional<ZnByteArray>> values;
    Versions versions;
    for (int part = 0; part < kPartCount; ++part)
        keys.append(keyOf(writer, part));
    EXPECT_EQ(store.multiGet(keys, &values, range.snapshot), kOk);
    for (std::size_t part = 0; part < values.size(); ++part)
        if (values[part].has_value())
            versions[std::string(keys[part].view())] = versionOf(values[part]->view());
    return versions;
}

class StoreThreads : public ::testing::Test {
protected:
    LogCapture log_;
    MemoryFiles files_;
    ZnEmbeddedDb store_{files_};
};

TEST_F(StoreThreads, ReadersSeeWholeBatchesThatOnlyGetNewer) {
    constexpr int kWriterCount = 3;
    constexpr int kLastVersion = 200;
    ASSERT_EQ(store_.open("/s", smallOptions()), kOk);
    std::atomic<int> writing{kWriterCount};
    std::atomic<int> lookCount{0};
    onThreads(2 * kWriterCount + 1, [&](int thread) {
        if (thread < kWriterCount) {
            for (int version = 1; version <= kLastVersion; ++version)
                EXPECT_EQ(writeVersion(store_, thread, version), kOk);
            --writing;
            return;
        }
        if (thread == 2 * kWriterCount) {
            for (int version = 1; writing > 0; ++version) {
                EXPECT_EQ(store_.put("plain", valueOf(version), tagsOf(valueOf(version))), kOk);
                EXPECT_EQ(version % 2 == 0 ? store_.flush() : store_.remove("plain"), kOk);
            }
            return;
        }
        const int writer = thread - kWriterCount;
        for (int newest = 0, round = 0; writing > 0 && !HasFailure(); ++round) {
            const Versions versions = lookAt(store_, writer, round);
            ASSERT_TRUE(versions.empty() || versions.size() == kPartCount) << ::testing::PrintToString(versions);
            for (const auto& [key, version] : versions) {
                ASSERT_EQ(version, versions.begin()->second) << "half a batch";
                ASSERT_GE(version, newest) << "an older one again";
            }
            ASSERT_TRUE(!versions.empty() || newest == 0 || round % 4 == 1);
            newest = versions.empty() ? newest : versions.begin()->second;
            ZnByteArray value;
            if (newest > 0) {
                ASSERT_EQ(store_.get(keyOf(writer, round % kPartCount), &value), kOk);
                ASSERT_GE(versionOf(value.view()), newest);
            }
            lookCount += versions.empty() ? 0 : 1;
        }
    });
    EXPECT_GT(lookCount, 20);
    EXPECT_GT(store_.stats().flushCount, 10U);
    store_.close();
    ASSERT_EQ(store_.open("/s", smallOptions()), kOk);
    const StoreContent content = contentOf(store_);
    EXPECT_EQ(content.size() - content.count("plain"), std::size_t(kWriterCount * kPartCount));
    for (const auto& [key, value] : content)
        EXPECT_TRUE(key == "plain" || versionOf(value) == kLastVersion) << key;
    EXPECT_EQ(store_.verify(), kOk);
}

TEST_F(StoreThreads, ClosingEndsWritersAndKeepsWhatWasAcknowledged) {
    constexpr int kWriterCount = 6;
    for (int round = 0; round < 10; ++round) {
        SCOPED_TRACE(round);
        int acknowledged[kWriterCount] = {};
        std::atomic<int> writeCount{0};
        ASSERT_EQ(store_.open("/s", smallOptions()), kOk);
        onThreads(kWriterCount + 1, [&](int thread) {
            if (thread == kWriterCount) {
                while (writeCount < 50 * (round + 1))
                    std::this_thread::yield();
                store_.close();
                return;
            }
            for (int version = 1; version <= 1'000'000; ++version, ++writeCount) { // far from the end when it is closed
                const ZnEmbeddedDbStatus status = writeVersion(store_, thread, version);
                if (status.isOk()) {
                    acknowledged[thread] = version;
                    continue;
                }
                EXPECT_EQ(status.code(), ZnEmbeddedDbStatus::NotAvailable);
                return;
            }
        });
        ASSERT_EQ(store_.open("/s", smallOptions()), kOk);
        for (int writer = 0; writer < kWriterCount; ++writer) {
            ZnByteArray value;
            if (store_.get(keyOf(writer, 0), &value).isOk() || acknowledged[writer] > 0) {
                EXPECT_EQ(versionOf(value.view()), acknowledged[writer]);
            }
        }
        for (const auto& [key, value] : contentOf(store_))
            ASSERT_EQ(store_.remove(key), kOk);
        store_.close();
    }
}

TEST_F(StoreThreads, SyncedWritersLoseNothingToAPowerCut) {
    constexpr int kWriterCount = 16;
    constexpr int kVersionCount = 40;
    ZnEmbeddedDbOptions options = smallOptions();
    options.memtableSizeBytes = 64 * 1024;
    ASSERT_EQ(store_.open("/s", options), kOk);
    onThreads(kWriterCount, [&](int writer) {
        for (int version = 1; version <= kVersionCount; ++version) {
            const std::string value = valueOf(version);
            const auto key = "w" + std::to_string(writer) + "-" + std::to_string(version);
            EXPECT_EQ(store_.put(key, value, tagsOf(value), Durability::Synced), kOk);
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

std::string soakKey(int writer, int key) {
    return "s" + std::to_string(writer) + "-" + std::to_string(key);
}

std::string soakValue(int version) {
    return valueOf(version) + "/" + std::string(static_cast<std::size_t>(version) * 7919 % 3000, '.');
}

/// Writers that each know what they wrote, and everything else that a store does beside them, until it is closed.
class Soak {
public:
    explicit Soak(ZnEmbeddedDb& store) : store_(store) {}

    void write(int writer, std::uint64_t seed) {
        std::mt19937_64 random(seed);
        for (ZnEmbeddedDbStatus status; status.isOk();) {
            ZnEmbeddedDbBatch batch;
            std::map<int, std::pair<int, bool>> changes; // by key: the version, and whether it is removed
            for (std::uint64_t left = 1 + random() % 4; left > 0; --left) {
                const int key = static_cast<int>(random() % kSoakKeyCount);
                const int version = ++lastVersion_[writer];
                const std::string value = soakValue(version);
                const bool removes = random() % 5 == 0;
                keys_[writer][key].attempted = version;
                changes[key] = {version, removes};
                if (removes) {
                    keys_[writer][key].removed = version;
                    batch.remove(soakKey(writer, key));
                } else {
                    batch.put(soakKey(writer, key), value, tagsOf(value));
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
    void read(std::uint64_t seed) {
        std::mt19937_64 random(seed);
        for (ZnEmbeddedDbStatus status; status.isOk();) {
            const int writer = static_cast<int>(random() % kSoakWriterCount);
            const int key = static_cast<int>(random() % kSoakKeyCount);
            const int floor = keys_[writer][key].acknowledged;
            ZnByteArray value;
            status = store_.get(soakKey(writer, key), &value);
            if (status.isOk()) {
                expectVersion(writer, key, value.view(), floor);
            } else if (status.code() == ZnEmbeddedDbStatus::NotFound) {
                EXPECT_GE(keys_[writer][key].removed, floor);
                status = kOk;
            }
            expectOkOrClosed(status);
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
            range.prefix = ZnByteArray(soakKey(writer, 0).substr(0, 3));
            range.snapshot = store_.snapshot();
            if (range.snapshot == nullptr)
                return;
            const StoreContent content = contentOf(range);
            for (const auto& [key, value] : content) {
                const int number = std::stoi(key.substr(3));
                expectVersion(writer, number, value, floors[static_cast<std::size_t>(number)]);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 30));
            range.reverse = true;
            EXPECT_EQ(contentOf(range) == content, true);
            auto records = store_.indexLookup("tag", "A", range.snapshot);
            std::size_t count = 0;
            for (; records.valid(); records.next())
                count += records.key().starts_with(range.prefix.view()) ? 1 : 0;
            EXPECT_EQ(records.status(), kOk);
            EXPECT_EQ(count,
                      static_cast<std::size_t>(std::count_if(content.begin(), content.end(), [](const auto& row) {
                          return row.second.starts_with("A");
                      })));
        }
    }
    void maintain(std::uint64_t seed) {
        std::mt19937_64 random(seed);
        for (ZnEmbeddedDbStatus status; status.isOk();) {
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
                ZnByteArray value;
                const bool isThere = store_.get(soakKey(writer, key), &value).isOk();
                EXPECT_EQ(isThere, !known.isGone) << soakKey(writer, key);
                EXPECT_EQ(!isThere || value.view() == soakValue(known.acknowledged), true) << soakKey(writer, key);
                byteCount += isThere ? value.size() + soakKey(writer, key).size() : 0;
            }
        }
        return byteCount;
    }

private:
    static void expectOkOrClosed(const ZnEmbeddedDbStatus& status) {
        EXPECT_TRUE(status.isOk() || status.code() == ZnEmbeddedDbStatus::NotAvailable) << status.message();
    }
    void expectVersion(int writer, int key, std::string_view value, int floor) {
        int version = -1;
        std::from_chars(value.data() + 1, value.data() + value.size(), version);
        EXPECT_EQ(value == soakValue(version), true) << value;
        EXPECT_GE(version, floor);
        EXPECT_LE(version, keys_[writer][key].attempted);
    }
    StoreContent contentOf(const ZnEmbeddedDbRange& range) {
        StoreContent content;
        auto records = store_.scan(range);
        for (; records.valid(); records.next())
            content[std::string(records.key())] = std::string(records.value());
        EXPECT_EQ(records.status(), kOk);
        return content;
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
    const std::uint64_t seed = std::random_device()();
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
        onThreads(kSoakWriterCount + 5, [&](int thread) {
            const std::uint64_t threadSeed = seed + static_cast<std::uint64_t>(thread);
            if (thread < kSoakWriterCount)
                soak.write(thread, threadSeed);
            else if (thread == kSoakWriterCount)
                soak.read(threadSeed);
            else if (thread <= kSoakWriterCount + 2)
                soak.lookTwice(threadSeed);
            else if (thread == kSoakWriterCount + 3)
                soak.maintain(threadSeed);
            else {
                std::this_thread::sleep_for(std::chrono::milliseconds(700));
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
