// What a store does for those who use it, and what it refuses.

#include "core/ipc/IpcFixture.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/storage/StoreModel.h"
#include "support/LogCapture.h"
#include "support/OnThreads.h"

#include <atomic>
#include <cerrno>

namespace {

using Durability = ZnEmbeddedDbDurability;

class StoreTest : public ::testing::Test {
protected:
    void open(const ZnEmbeddedDbOptions& options = quietOptions()) { ASSERT_EQ(store_.open("/s", options), kOk); }
    void put(std::string_view key, const std::string& value) { ASSERT_EQ(putTagged(store_, key, value), kOk); }
    std::string get(std::string_view key) const { return valueOf(store_, key); }

    LogCapture log_;
    MemoryFiles files_;
    ZnEmbeddedDb store_{files_};
};

TEST_F(StoreTest, BadInputIsRefusedAndTheLargestIsTaken) {
    constexpr std::size_t kReservedBytes = ZnEmbeddedDb::kMaxValueBytes + 1; // address space that is never touched
    void* const reserved = ::mmap(nullptr, kReservedBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(reserved, MAP_FAILED);
    const std::string longest(ZnEmbeddedDb::kMaxKeyBytes, 'k');
    const std::string tooLong = longest + "k";
    struct Row {
        std::string key;
        std::string_view value;
        std::string indexName;
        std::string secondaryKey;
        bool isGood;
    };
    const Row rows[] = {
        {longest, "v", "i", longest, true},
        {"", "", "i", "", true},
        {tooLong, "v", "i", "s", false},
        {"k", {static_cast<const char*>(reserved), kReservedBytes}, "i", "s", false},
        {"k", "v", "i", tooLong, false},
    };
    open();
    for (const Row& row : rows) {
        SCOPED_TRACE(&row - rows);
        ZnEmbeddedDbIndexKeys indexKeys;
        indexKeys[ZnString(row.indexName)].append(ZnByteArray(row.secondaryKey));
        const std::uint64_t before = store_.stats().lastCommittedSequence;
        const Status status = store_.put(row.key, row.value, indexKeys);
        EXPECT_EQ(status.code(), row.isGood ? Status::Ok : Status::InvalidArgument) << status.message();
        EXPECT_EQ(store_.stats().lastCommittedSequence, before + (row.isGood ? 1 : 0));
    }
    ::munmap(reserved, kReservedBytes);
    ZnEmbeddedDbBatch batch;
    batch.put("good", "v");
    batch.remove(tooLong);
    EXPECT_EQ(store_.write(batch).code(), Status::InvalidArgument);
    EXPECT_EQ(get("good") + ", " + get(tooLong), "code 1, code 1");
    ASSERT_EQ(store_.flush(), kOk); // what was taken can be written to tables
    EXPECT_EQ(get(longest), "v");
    EXPECT_TRUE(store_.indexLookup("i", longest).valid());
    EXPECT_EQ(store_.verify(), kOk);
}

TEST_F(StoreTest, IndexesHaveNamesThatNothingElseMeans) {
    open();
    const auto putUnder = [&](const std::string& name) {
        ZnEmbeddedDbIndexKeys indexKeys;
        indexKeys[ZnString(name)].append(ZnByteArray(std::string_view("s")));
        return store_.put("k", "v", indexKeys).code();
    };
    for (const char* name : {"", "1a", "-a", ".a", "a b", "a/b", "a\xC3\xA4", "true", "false", "null"}) {
        EXPECT_EQ(putUnder(name), Status::InvalidArgument) << name;
        EXPECT_EQ(store_.indexLookup(name, "s").status().code(), Status::InvalidArgument) << name;
        EXPECT_EQ(store_.indexScan(name).status().code(), Status::InvalidArgument) << name;
    }
    EXPECT_EQ(putUnder(std::string(65, 'n')), Status::InvalidArgument);
    for (const std::string& name :
         {std::string("a"), std::string("_"), std::string("Z9.-_"), std::string("True"), std::string(64, 'n')})
        EXPECT_EQ(putUnder(name), Status::Ok) << name;
}

TEST_F(StoreTest, WhatCannotBeOpenedSaysWhyAndLeavesNothing) {
    TemporaryDirectory directory;
    const ZnString file = directory.file("file", "content");
    directory.file("others/notes", "mine");
    ZnEmbeddedDbOptions existing = quietOptions();
    existing.createIfMissing = false;
    const std::tuple<ZnString, ZnEmbeddedDbOptions, Status::Code> rows[] = {
        {"", quietOptions(), Status::InvalidArgument},
        {file, quietOptions(), Status::IoError},
        {file, quietOptions(true), Status::IoError},
        {file + "/s", quietOptions(), Status::IoError},
        {directory.path("s"), existing, Status::NotFound},
        {directory.path("s"), quietOptions(true), Status::NotFound},
        {directory.path("others"), existing, Status::NotFound},
    };
    ZnEmbeddedDb real;
    for (const auto& [path, options, code] : rows) {
        SCOPED_TRACE(path.str() + (options.readOnly ? ", read only" : ""));
        const Status status = real.open(path, options);
        EXPECT_EQ(status.code(), code) << status.message();
        EXPECT_TRUE(status.message().contains(path.view())) << status.message();
        EXPECT_FALSE(real.isOpen() || std::filesystem::exists(directory.path("s").str()));
        EXPECT_EQ(contentOf(file), "content");
    }
    const std::filesystem::directory_iterator others(directory.path("others").str());
    EXPECT_EQ(std::distance(begin(others), end(others)), 1);
    files_.failOperation(1, EACCES);
    EXPECT_EQ(store_.open("/s").code(), Status::IoError);
    open();
    EXPECT_EQ(store_.open("/other").code(), Status::InvalidArgument); // is open
    put("a", "A");
    store_.close();
    existing.errorIfExists = true;
    EXPECT_EQ(store_.open("/s", existing).code(), Status::InvalidArgument);
    ASSERT_EQ(store_.open("/other"), kOk); // one object, another store
    EXPECT_EQ(get("a"), "code 1");
    store_.close();
    open();
    EXPECT_EQ(get("a"), "A");
}

TEST_F(StoreTest, OneWriterAtATime) {
    TemporaryDirectory directory;
    ZnEmbeddedDb mine;
    const auto refusal = [&] {
        const Status status = ZnEmbeddedDb().open(directory.path("s"));
        EXPECT_EQ(status.code(), Status::Busy);
        return status.message();
    };
    {
        Child child([&](const auto& tell) {
            ZnEmbeddedDb held;
            if (held.open(directory.path("s")).isOk() && held.put("a", "A").isOk())
                tell();
            return ::pause();
        });
        ASSERT_TRUE(child.awaitTold());
        EXPECT_TRUE(refusal().contains(("by process " + ZnString::number(child.pid())).view())) << refusal();
    } // and killed
    ASSERT_EQ(mine.open(directory.path("s")), kOk);
    EXPECT_TRUE(refusal().contains("by this process")) << refusal();
    EXPECT_EQ(mine.contains("a"), kOk);
    EXPECT_EQ(mine.put("a", "B"), kOk); // the refusal took nothing away
}

/// The codes of everything that may be asked of a store: of what writes, then of what does not.
std::pair<std::set<Status::Code>, std::set<Status::Code>> allCodes(ZnEmbeddedDb& store) {
    ZnByteArray value;
    ZnVector<std::optional<ZnByteArray>> values;
    ZnEmbeddedDbBatch batch;
    batch.put("k", "v");
    std::atomic<int> asyncCode{-1};
    store.writeAsync(batch, [&](const Status& status) { asyncCode = status.code(); });
    EXPECT_TRUE(waitUntil([&] { return asyncCode >= 0; }));
    return {{store.put("k", "v").code(), store.remove("k").code(), store.write(batch).code(), store.flush().code(),
             static_cast<Status::Code>(asyncCode.load())},
            {store.sync().code(), store.get("a", &value).code(), store.multiGet({}, &values).code(),
             store.contains("a").code(), store.scan().status().code(), store.indexLookup("tag", "A").status().code(),
             store.indexScan("tag").status().code(), store.verify().code()}};
}

TEST_F(StoreTest, OneThatIsNotOpenAndOneThatIsOpenToReadSaySo) {
    using Codes = std::set<Status::Code>;
    for (int round = 0; round < 2; ++round) { // never opened; closed
        EXPECT_EQ(allCodes(store_), std::make_pair(Codes{Status::NotAvailable}, Codes{Status::NotAvailable}));
        EXPECT_EQ(store_.snapshot(), nullptr);
        open();
        put("a", "A");
        store_.close();
        store_.close();
    }
    const std::vector<ZnString> before = files_.paths();
    open(quietOptions(true));
    EXPECT_EQ(allCodes(store_), std::make_pair(Codes{Status::ReadOnly}, Codes{Status::Ok}));
    store_.close();
    EXPECT_EQ(files_.paths(), before);
}

TEST_F(StoreTest, AWriteSurvivesWhatItsDurabilityPromises) {
    struct Row {
        Durability option;
        Durability write;
        bool callsSync;
        bool survivesPowerCut;
    };
    constexpr Row kRows[] = {
        {Durability::Buffered, Durability::Default, false, false},
        {Durability::Default, Durability::Default, false, false},
        {Durability::Synced, Durability::Buffered, false, false},
        {Durability::Buffered, Durability::Default, true, true},
        {Durability::Synced, Durability::Default, false, true},
        {Durability::Buffered, Durability::Synced, false, true},
        {Durability::Periodic, Durability::Default, false, true},
        {Durability::Buffered, Durability::Periodic, false, true},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(&row - kRows);
        MemoryFiles files;
        ZnEmbeddedDb store(files);
        ZnEmbeddedDbOptions options = quietOptions();
        options.durability = row.option;
        options.syncIntervalMs = 20;
        ASSERT_EQ(store.open("/s", options), kOk);
        ASSERT_EQ(store.put("a", "A1", {}, row.write), kOk);
        ASSERT_EQ(row.callsSync ? store.sync() : kOk, kOk);
        if (row.option == Durability::Periodic || row.write == Durability::Periodic)
            static_cast<void>(waitUntil([&] { return store.stats().walSyncCount > 0; }));
        EXPECT_EQ(store.stats().walSyncCount, row.survivesPowerCut ? 1U : 0U);
        files.stopAt(1);
        store.close();
        files.cutPower();
        ASSERT_EQ(store.open("/s", options), kOk);
        EXPECT_EQ(store.contains("a").isOk(), row.survivesPowerCut);
    }
}

TEST_F(StoreTest, AnIdleStoreWritesItsRecordsToTables) {
    ZnEmbeddedDbOptions options = quietOptions();
    options.idleFlushMs = 20;
    open(options);
    for (std::uint64_t round = 1; round <= 2; ++round) {
        put("a", "A" + std::to_string(round));
        EXPECT_TRUE(waitUntil([&] { return store_.stats().flushCount == round; }));
        EXPECT_EQ(store_.stats().memtableBytes, 0U);
        EXPECT_EQ(store_.stats().durableSequence, round);
    }
}

TEST_F(StoreTest, AnAsynchronousWriteIsAnsweredOnceWhereItBelongs) {
    constexpr int kWriteCount = 50;
    for (const bool hasLoop : {false, true}) {
        SCOPED_TRACE(hasLoop ? "with a loop" : "without");
        const auto application = hasLoop ? std::make_unique<ZnCoreApplication>() : nullptr;
        const ZnString path = hasLoop ? "/loop" : "/none";
        std::atomic<int> answers[kWriteCount] = {};
        std::atomic<int> answerCount{0};
        std::atomic<int> hereCount{0};
        const auto awaitAnswers = [&](int count) {
            const auto hasAll = [&] { return answerCount == count; };
            EXPECT_TRUE(hasLoop ? application->processUntil(hasAll, 20000) : waitUntil(hasAll));
        };
        const auto write = [&, caller = std::this_thread::get_id()](int number) {
            ZnEmbeddedDbBatch batch;
            batch.put(std::to_string(number), "A");
            store_.writeAsync(batch, [&, caller, number](const Status& status) {
                answers[number] += status.isOk() ? 1 : status.code() == Status::NotAvailable ? 100 : 1000;
                hereCount += std::this_thread::get_id() == caller ? 1 : 0;
                ++answerCount;
                if (!hasLoop && number < 3) // on a thread of the store, which must not end by it
                    throw std::runtime_error("the callback's own");
            });
        };
        ASSERT_EQ(store_.open(path), kOk);
        for (int number = 0; number < kWriteCount / 2; ++number)
            write(number);
        awaitAnswers(kWriteCount / 2);
        EXPECT_EQ(hereCount, hasLoop ? kWriteCount / 2 : 0);
        for (int number = kWriteCount / 2; number < kWriteCount - 1; ++number)
            write(number); // some are made, the others refused
        store_.close();
        write(kWriteCount - 1);
        awaitAnswers(kWriteCount);
        ASSERT_EQ(store_.open(path), kOk);
        for (int number = 0; number < kWriteCount; ++number) {
            EXPECT_TRUE(answers[number] == 100 ? number >= kWriteCount / 2 : answers[number] == 1) << answers[number];
            EXPECT_EQ(get(std::to_string(number)), answers[number] == 1 ? "A" : "code 1");
        }
        EXPECT_EQ(answers[kWriteCount - 1], 100);
        store_.close();
    }
}

} // namespace
