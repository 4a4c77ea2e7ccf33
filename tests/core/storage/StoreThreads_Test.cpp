// Many threads on one store: what each of them sees must make sense at any moment.

#include "core/storage/StoreModel.h"
#include "support/LogCapture.h"
#include "support/OnThreads.h"

#include <atomic>
#include <charconv>
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

} // namespace
