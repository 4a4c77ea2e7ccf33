#include "core/storage/StoreTestSupport.h"
#include "core/storage/embeddeddb/TableCursor_.h"
#include "core/storage/embeddeddb/TableFormat_.h"
#include "core/storage/embeddeddb/TableHandle_.h"
#include "core/storage/embeddeddb/TableWriter_.h"

using namespace znEmbeddedDbDetail;

namespace {

using Records = std::vector<TableRecord_>;

TableRecord_ record(const std::string& key, std::uint64_t sequence, std::uint32_t type, const std::string& value) {
    return {ZnByteArray(key), sequence, type, ZnByteArray(value)};
}

/// A stored value of that length, which is 13 at least.
std::string storedValue(std::size_t byteCount) {
    return encoded(inlineEntry(std::string(byteCount - 13, 'v')));
}

TableMeta_ metaOf(std::int32_t kind, std::int32_t level, std::uint64_t id, const char* indexName = "") {
    TableMeta_ meta;
    meta.kind = kind;
    meta.level = level;
    meta.fileId = id;
    meta.indexName = indexName;
    return meta;
}

Records goldenRecords() {
    ValueEntry_ pear = inlineEntry("green");
    pear.indexKeys["color"].append(ZnByteArray(std::string_view("green")));
    pear.indexKeys["tag"].append(ZnByteArray(std::string_view("a")));
    pear.indexKeys["tag"].append(ZnByteArray(std::string_view("b")));
    ValueEntry_ plum;
    plum.blob = {true, 3, 5, 28, 0x7E95C0A3, 0};
    return {record("apple", 40, kInlineRecord, encoded(inlineEntry("red"))), record("cherry", 41, kTombstoneRecord, ""),
            record("pear", 7, kInlineRecord, encoded(pear)), record("plum", 42, kBlobRecord, encoded(plum))};
}

/// Table "L0-2.sst" under "/s", with what the manifest would say of it.
struct Table {
    explicit Table(const Records& tableRecords, TableMeta_ tableMeta = metaOf(kPrimaryTable, 0, 2))
        : meta(std::move(tableMeta)), records(tableRecords) {
        EXPECT_EQ(writeTable(files, "/s/tmp", "/s/tables", &meta, records), kOk);
        path = "/s/tables/" + meta.fileName;
    }
    std::string bytes() const { return files.content(path); }
    std::shared_ptr<TableHandle_> open(Status* status) {
        auto table = std::make_shared<TableHandle_>();
        return table->open(files, "/s", meta, options, status) ? table : nullptr;
    }
    Status statusWith(const std::string& bytes) {
        files.put(path, bytes);
        Status status;
        open(&status);
        return status;
    }

    MemoryFiles files;
    TableMeta_ meta;
    Records records;
    TableOpenOptions_ options;
    ZnString path;
};

/// Every way to read must give exactly the records.
void expectRecords(const std::shared_ptr<TableHandle_>& table, const Records& records) {
    Records all;
    ASSERT_TRUE(table->readAllRecords(&all));
    ASSERT_EQ(all.size(), records.size());
    TableCursor_ cursor(table);
    cursor.seekToFirst();
    for (std::size_t index = 0; index < records.size(); ++index) {
        const RecordView_ expected = records[index].view();
        RecordView_ found;
        ASSERT_EQ(table->find(expected.key, &found), TableHandle_::Find::Found) << expected.key;
        ASSERT_TRUE(cursor.isValid());
        for (const RecordView_& seen : {all[index].view(), found, cursor.record()}) {
            ASSERT_EQ(seen.key, expected.key);
            ASSERT_TRUE(seen.sequence == expected.sequence && seen.type == expected.type &&
                        seen.value == expected.value);
        }
        EXPECT_EQ(table->find(std::string(expected.key) + '\0', &found), TableHandle_::Find::Absent);
        cursor.next();
    }
    EXPECT_FALSE(cursor.isValid() || cursor.isBroken());
    cursor.seekToLast();
    for (auto expected = records.rbegin(); expected != records.rend(); ++expected, cursor.previous()) {
        ASSERT_TRUE(cursor.isValid());
        ASSERT_EQ(cursor.record().key, expected->key.view());
    }
    EXPECT_FALSE(cursor.isValid() || cursor.isBroken());
}

TEST(Table_, IsWrittenAndReadByteForByte) {
    Status status;
    Table primary(goldenRecords());
    EXPECT_EQ(primary.bytes(), golden("L0-2.sst"));
    EXPECT_EQ(primary.meta.minSequence, 7u);
    Table index({record(std::string("green\0\1pear", 11), 7, kInlineRecord, ""),
                 record(std::string("red\0\1cherry", 11), 41, kTombstoneRecord, "")},
                metaOf(kIndexTable, 1, 4, "color"));
    EXPECT_EQ(index.bytes(), golden("L1-4.sst"));
    for (Table* table : {&primary, &index}) {
        table->files.put(table->path, golden(table->meta.fileName.data()));
        const auto handle = table->open(&status);
        ASSERT_NE(handle, nullptr) << status.message();
        expectRecords(handle, table->records);
        EXPECT_EQ(handle->firstKey(), table->records.front().key);
        EXPECT_EQ(handle->lastKey(), table->records.back().key);
        EXPECT_EQ(handle->bloom().bits.size(), 32u);
    }
}

TEST(Table_, EveryDamageIsFoundOrChangesNothing) {
    Table table(goldenRecords());
    int harmlessCount = 0;
    forEachDamage(table.bytes(), [&](const std::string& damaged, const std::string& what) {
        SCOPED_TRACE(what);
        for (const bool verifies : {true, false}) {
            table.options.verifyFilters = verifies;
            table.files.put(table.path, damaged);
            Status status;
            const auto handle = table.open(&status);
            EXPECT_EQ(handle != nullptr, status.isOk());
            if (handle == nullptr && !damaged.empty()) {
                EXPECT_EQ(status.code(), Status::Corruption) << status.message();
            }
            if (handle != nullptr && verifies)
                expectRecords(handle, table.records);
            harmlessCount += handle != nullptr && verifies ? 1 : 0;
        }
    });
    // The target size of blocks, which nobody reads, and bits of the filter that only make it say "maybe".
    EXPECT_GT(harmlessCount, 32);
    EXPECT_LT(harmlessCount, 32 + 256);
}

TEST(Table_, FilesOfOthersAndSectionsWithoutRoomForTheirEntriesAreRefused) {
    Table table(goldenRecords());
    const std::string good = table.bytes();
    const std::size_t footer = good.size() - kTableFooterBytes;
    std::string longSparseIndex = good;
    longSparseIndex[footer + 16] = '\x27';
    longSparseIndex.insert(0x126, 1, '\0');
    std::string longFilter = good;
    longFilter.insert(footer, 1, '\0');
    const std::pair<const char*, std::string> rows[] = {
        {"table too small", good.substr(0, 43)},
        {"invalid table magic", golden("WAL-1.log")},
        {"invalid sparse index", longSparseIndex},
        {"invalid bloom section", longFilter},
        {"table is not the one of the manifest", golden("L1-4.sst")},
    };
    for (const auto& [message, bytes] : rows)
        EXPECT_EQ(table.statusWith(bytes), Status(Status::Corruption, message));
    EXPECT_EQ(table.statusWith(""), Status(Status::IoError, "GetFileSizeEx failed: 0"));
    EXPECT_EQ(table.statusWith(good), kOk);
}

TEST(Table_, BlocksEndBeforeTheTargetSizeAndRecordsAreNeverSplit) {
    const std::size_t full = kBlockTargetBytes - kRecordFixedBytes - 1; // fills a block, with a key of one byte
    const Records records = {
        record("a", 1, kInlineRecord, storedValue(full - 100 - kRecordFixedBytes - 1)),
        record("b", 2, kInlineRecord, storedValue(100)), // ends exactly at the target
        record("c", 3, kInlineRecord, storedValue(13)),
        record("d", 4, kInlineRecord, storedValue(full + 1)),
        record("e", 5, kInlineRecord, storedValue(3000000)),
        record("f", 6, kTombstoneRecord, ""),
    };
    Table table(records);
    Status status;
    const auto handle = table.open(&status);
    ASSERT_NE(handle, nullptr) << status.message();
    std::string firstKeys;
    for (const SparseEntry_& entry : handle->sparseIndex())
        firstKeys += entry.firstKey.view();
    EXPECT_EQ(firstKeys, "acdef");
    EXPECT_EQ(handle->sparseIndex()[0].size, kBlockTargetBytes + kBlockHeaderBytes);
    expectRecords(handle, records);
    // Damage outside of the checksums, in a table of several blocks.
    const std::string good = table.bytes();
    const auto sparseOffset = loadLe<std::uint64_t>(good.data() + good.size() - kTableFooterBytes + 8);
    const auto bloomOffset = loadLe<std::uint64_t>(good.data() + good.size() - kTableFooterBytes + 16);
    for (std::size_t bit = sparseOffset * 8; bit < bloomOffset * 8; bit += 5) {
        std::string damaged = good;
        damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << (bit % 8)));
        EXPECT_EQ(table.statusWith(damaged).code(), Status::Corruption) << bit;
    }
}

TEST(Table_, EveryKeyIsFoundAndSoughtInBlocksOfManyRecords) {
    Records records;
    for (std::size_t number = 0; number < 5000; ++number)
        records.push_back(
            record(std::to_string(100002 + 2 * number), 1 + number % 7, kInlineRecord, storedValue(13 + number % 60)));
    Table table(records);
    for (const bool verifies : {true, false}) {
        table.options.verifyFilters = verifies;
        Status status;
        const auto handle = table.open(&status);
        ASSERT_NE(handle, nullptr) << status.message();
        ASSERT_GT(handle->sparseIndex().size(), 3u);
        EXPECT_EQ(handle->blockIndexFor("0"), 0u); // the table's keys all begin with "1"
        EXPECT_EQ(handle->blockIndexFor("2"), handle->sparseIndex().size() - 1);
        expectRecords(handle, records);
        TableCursor_ cursor(handle);
        for (std::size_t number = 0; number < 5000; ++number) {
            cursor.seek(std::to_string(100002 + 2 * number - 1));
            ASSERT_TRUE(cursor.isValid());
            ASSERT_EQ(cursor.record().key, records[number].key.view());
            for (std::size_t back = 1; back <= std::min(number, number % 40); ++back) { // to and fro
                cursor.previous();
                ASSERT_TRUE(cursor.isValid());
                ASSERT_EQ(cursor.record().key, records[number - back].key.view());
            }
            cursor.next();
            EXPECT_TRUE(cursor.isValid() ? cursor.record().key == records[number - number % 40 + 1].key.view()
                                         : number == 4999);
            if (!cursor.isValid())
                continue;
            cursor.previous();
            ASSERT_TRUE(cursor.isValid());
            EXPECT_EQ(cursor.record().key, records[number - number % 40].key.view());
        }
    }
}

TEST(Table_, AFailedWriteLeavesNoFileAndAFinishedOneSurvivesThePowerCut) {
    const auto write = [](MemoryFiles& files) {
        TableMeta_ meta = metaOf(kPrimaryTable, 0, 2);
        ZnString syncError;
        const Status status = writeTable(files, "/s/tmp", "/s/tables", &meta, goldenRecords(), &syncError);
        EXPECT_TRUE(status.isOk() || (status.code() == Status::IoError && status.message().contains(": /s/t")));
        EXPECT_TRUE(status.isOk() || files.isStopped() || files.paths().empty()); // temporary or final
        return status.isOk() && syncError.isEmpty();
    };
    const auto check = [](const MemoryFiles& files, bool isPromised) {
        if (isPromised || files.has("/s/tables/L0-2.sst")) {
            EXPECT_EQ(files.content("/s/tables/L0-2.sst"), golden("L0-2.sst"));
        }
    };
    breakEveryOperation([](MemoryFiles&) {}, write, check);
    MemoryFiles files;
    TableMeta_ meta = metaOf(kPrimaryTable, 0, 2);
    EXPECT_EQ(writeTable(files, "/s/tmp", "/s/tables", &meta, {}),
              Status(Status::InvalidArgument, "cannot write empty table"));
}

} // namespace
