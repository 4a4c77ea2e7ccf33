#include "core/storage/StoreTestSupport.h"
#include "core/storage/embeddeddb/TableCursor_.h"
#include "core/storage/embeddeddb/TableFormat_.h"
#include "core/storage/embeddeddb/TableHandle_.h"
#include "core/storage/embeddeddb/TableWriter_.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <set>

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

TEST(Table_, OpeningParsesTheValuesAndTellsWhichBlobFilesTheyReferTo) {
    ValueEntry_ blob;
    Records records = goldenRecords();
    for (const std::uint64_t blobFileId : {7U, 3U, 0U, 7U}) {
        blob.blob = {true, blobFileId, 5, 28, 0x7E95C0A3, 0};
        records.push_back(record("z" + std::to_string(records.size()), 42, kBlobRecord, encoded(blob)));
    }
    Table table(records);
    Status status;
    EXPECT_EQ(table.open(&status)->blobUses(), (std::map<std::uint64_t, std::uint64_t>{{0, 28}, {3, 56}, {7, 56}}));
    EXPECT_TRUE(table.open(&status)->knowsBlobUses());
    table.options.verifyFilters = false;
    EXPECT_FALSE(table.open(&status)->knowsBlobUses());
    const std::string inlineValue = encoded(inlineEntry("red"));
    const TableRecord_ rows[] = {
        record("k", 1, kBlobRecord, inlineValue), record("k", 1, kInlineRecord, encoded(blob)),
        record("k", 1, kInlineRecord, inlineValue + "x"),
        record("k", 1, kInlineRecord, inlineValue.substr(0, 5) + "\1" + inlineValue.substr(6)), // an index too many
    };
    for (const TableRecord_& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.value.view()));
        Table damaged({row});
        EXPECT_EQ(damaged.open(&status), nullptr);
        EXPECT_EQ(status.message(), "table has a stored value that does not parse");
        damaged.options.verifyFilters = false;
        EXPECT_NE(damaged.open(&status), nullptr);
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

TEST(Table_, ChecksTellWhatIsWrong) {
    Table table(goldenRecords());
    const std::string good = table.bytes();
    const auto with = [&](std::size_t offset, const char* byte) {
        std::string bytes = good;
        return bytes.replace(offset, 1, byte, 1);
    };
    const std::size_t footer = good.size() - kTableFooterBytes;
    std::string longSparseIndex = with(footer + 16, "\x27");
    longSparseIndex.insert(0x126, 1, '\0');
    std::string longFilter = good;
    longFilter.insert(footer, 1, '\0');
    const struct {
        const char* message;
        std::string bytes;
    } rows[] = {
        {"table too small", good.substr(0, 43)},
        {"invalid table magic", with(0, "X")},
        {"invalid table magic", golden("WAL-1.log")},
        {"invalid table header", with(8, "\2")},
        {"invalid table header", with(43, "\x7F")},
        {"invalid table footer", with(footer, "X")},
        {"table footer mismatch", with(footer + 32, "\5")},
        {"table footer mismatch", with(footer + 24, "\5")},
        {"invalid sparse index", with(footer + 15, "\1")},
        {"invalid sparse entry", with(0x10D, "\2")},
        {"invalid sparse index", longSparseIndex},
        {"invalid bloom section", with(0x12A, "\x21")},
        {"invalid bloom section", longFilter},
        {"invalid table block header", with(0x30, "\1")},
        {"table block checksum mismatch", with(0x41, "B")},
        {"table block is not the one of the sparse index", with(0x115, "b")},
        {"table filter lacks a key", with(0x134, "\1")},
        {"table is not the one of the manifest", golden("L1-4.sst")},
        {"table is not the one of the manifest", with(0x10, "\6")},
    };
    for (const auto& row : rows)
        EXPECT_EQ(table.statusWith(row.bytes), Status(Status::Corruption, row.message));
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
    TableCursor_ cursor(handle);
    for (const auto& [sought, found] : {std::pair("", "a"), {"aa", "b"}, {"bb", "c"}, {"f", "f"}}) {
        cursor.seek(sought);
        ASSERT_TRUE(cursor.isValid());
        EXPECT_EQ(cursor.record().key, found);
    }
    cursor.seek("g");
    EXPECT_FALSE(cursor.isValid() || cursor.isBroken());
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

TEST(Table_, FilterHasTenBitsAKeyAndNoKeysAtFirst) {
    EXPECT_EQ(BloomFilter_::byteLengthFor(1), 32u);
    EXPECT_EQ(BloomFilter_::byteLengthFor(100), 125u);
    BloomFilter_ filter;
    EXPECT_TRUE(filter.mayContain("anything"));
    filter.add("");
    EXPECT_EQ(filter.bits.size(), 32u);
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
