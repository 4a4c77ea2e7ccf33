#include "core/storage/StoreViewFixture.h"
#include "core/storage/embeddeddb/IteratorCore_.h"
#include "core/storage/embeddeddb/PointRead_.h"

#include <algorithm>
#include <cerrno>
#include <gmock/gmock.h>
#include <random>

using namespace znEmbeddedDbDetail;

namespace {

using Row = StoreViewFixture::Row;
using Rows = std::vector<Row>;

/// What the iterator gives from where it stands, until it ends Ok. A secondary key stands in front of the key.
Rows rowsOf(ZnEmbeddedDbIterator iterator) {
    Rows rows;
    for (; iterator.valid(); iterator.next()) {
        Row row{std::string(iterator.key()), std::string(iterator.value()), iterator.sequence(), {}};
        const ZnEmbeddedDbIndexKeys indexKeys = iterator.indexKeys();
        for (const ZnByteArray& color : indexKeys.value("color"))
            row.colors.emplace(color.view());
        if (!iterator.secondaryKey().empty())
            row.key = std::string(iterator.secondaryKey()) + "/" + row.key;
        rows.push_back(row);
    }
    EXPECT_EQ(iterator.status(), kOk);
    return rows;
}

bool isInRange(const std::string& key, const ZnEmbeddedDbRange& range) {
    return key >= range.start.view() && (range.end.isEmpty() || key < range.end.view()) &&
           key.starts_with(range.prefix.view());
}

/// The rows in the way and number that the range asks for.
Rows arranged(Rows rows, const ZnEmbeddedDbRange& range) {
    if (range.reverse)
        std::reverse(rows.begin(), rows.end());
    rows.resize(std::min<std::uint64_t>(rows.size(), range.limit));
    for (Row& row : rows)
        row.value = range.keysOnly ? "" : row.value;
    return rows;
}

/// Does random things to a store, then asks it random questions.
class RandomStore {
public:
    explicit RandomStore(std::uint64_t seed) : random_(seed) {}

    std::uint64_t below(std::uint64_t count) { return random_() % count; }
    std::string text(std::uint64_t most) {
        constexpr std::string_view kAlphabet("\0\1\xFF"
                                             "ab",
                                             5);
        std::string out(below(most + 1), 'a');
        for (char& c : out)
            c = kAlphabet[below(kAlphabet.size())];
        return out;
    }
    void change() {
        switch (below(40)) {
        case 0: store.seal(); break;
        case 1:
        case 2:
            if (!store.sealed.empty())
                store.flush();
            break;
        case 3: compactSome(&store.tables.primaryView); break;
        case 4: compactSome(&store.tables.indexViews["color"]); break;
        default:
            if (below(4) == 0)
                store.remove(text(4), below(3) > 0);
            else
                store.put(text(4), text(40), {text(2), text(2)}, below(3) > 0);
        }
    }
    ZnEmbeddedDbRange range() {
        const auto bound = [&] { return ZnByteArray(below(2) == 0 ? std::string() : text(3)); };
        ZnEmbeddedDbRange range;
        range.start = bound();
        range.end = bound();
        range.prefix = bound();
        range.reverse = below(2) == 0;
        range.keysOnly = below(4) == 0;
        if (below(3) == 0)
            range.limit = below(6);
        return range;
    }
    void checkScan(const ReadViewPtr_& view) {
        const ZnEmbeddedDbRange asked = range();
        Rows rows;
        for (const auto& [key, row] : store.model)
            if (isInRange(key, asked))
                rows.push_back(row);
        EXPECT_EQ(rowsOf(openScan(view, asked)), arranged(rows, asked));
    }
    void checkIndex(const ReadViewPtr_& view) {
        const ZnEmbeddedDbRange asked = range();
        const std::string color = text(2);
        std::map<std::pair<std::string, std::string>, Row> ofRange;
        Rows ofColor;
        for (const auto& [key, row] : store.model) {
            for (const std::string& each : row.colors)
                if (isInRange(each, asked))
                    ofRange[{each, key}] = row;
            if (row.colors.count(color) != 0)
                ofColor.push_back(row);
        }
        Rows rows;
        for (auto& [keys, row] : ofRange)
            rows.push_back(named(row, keys.first));
        for (Row& row : ofColor)
            row = named(row, color);
        EXPECT_EQ(rowsOf(openIndexScan(view, "color", asked)), arranged(rows, asked));
        EXPECT_EQ(rowsOf(openIndexLookup(view, "color", color)), ofColor);
    }
    void checkPoints(const ReadViewPtr_& view) {
        ZnVector<ZnByteArray> keys;
        for (int count = 0; count < 50; ++count)
            keys.append(ZnByteArray(text(4)));
        ZnVector<std::optional<ZnByteArray>> values;
        ASSERT_EQ(readRecords(*view, keys, &values), kOk);
        ASSERT_EQ(values.size(), keys.size());
        for (std::size_t index = 0; index < keys.size(); ++index) {
            const auto expected = store.model.find(std::string(keys[index].view()));
            ZnByteArray value(std::string_view("as it was"));
            IndexKeys_ indexKeys;
            const Status status = readRecord(*view, keys[index].view(), &value, &indexKeys);
            ASSERT_EQ(values[index].has_value(), expected != store.model.end());
            ASSERT_EQ(status.code(), values[index] ? Status::Ok : Status::NotFound);
            EXPECT_EQ(value.view(), values[index] ? expected->second.value : "as it was");
            if (values[index]) {
                EXPECT_EQ(values[index]->view(), expected->second.value);
                EXPECT_EQ(indexKeys.value("color").size(), expected->second.colors.size());
            }
        }
    }

    StoreViewFixture store;

private:
    void compactSome(TableList_* list) {
        if (!list->empty())
            store.compact(list, 1 + below(list->size()));
    }
    static Row named(Row row, const std::string& color) {
        row.key = (color.empty() ? "" : color + "/") + row.key;
        return row;
    }

    std::mt19937_64 random_;
};

TEST(ReadPath, GivesWhatAMapWouldGiveHoweverTheRecordsAreSpread) {
    const std::uint64_t firstSeed = std::random_device()();
    for (std::uint64_t seed = firstSeed; seed < firstSeed + 25; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        RandomStore random(seed);
        for (int step = 0; step < 900; ++step)
            random.change();
        random.checkPoints(random.store.view(true));
        const ReadViewPtr_ view = random.store.view();
        random.checkPoints(view);
        for (int round = 0; round < 60; ++round) {
            random.checkScan(view);
            random.checkIndex(view);
        }
        if (testing::Test::HasFailure())
            break;
    }
}

TEST(ReadPath, SourcesThatLieBehindEachOtherOrShareLongPrefixesAreMergedInOrder) {
    StoreViewFixture store;
    const std::string common(70, 'k');
    for (int part = 0; part < 12; ++part) { // the first half one behind the other, the rest overlapping
        for (int number = 0; number < 400; ++number)
            store.put(common + std::to_string(part < 6 ? 1000000 + part * 1000 + number : 1003000 + number * 7 + part),
                      std::to_string(part), {});
        store.seal();
        if (part % 3 != 2)
            store.flush();
    }
    Rows rows;
    for (const auto& [key, row] : store.model)
        rows.push_back(row);
    ZnEmbeddedDbRange range;
    const ReadViewPtr_ view = store.view();
    EXPECT_EQ(rowsOf(openScan(view, range)), rows);
    range.reverse = true;
    EXPECT_EQ(rowsOf(openScan(view, range)), arranged(rows, range));
}

TEST(ReadPath, FiltersAreCounted) {
    StoreViewFixture store;
    for (int number = 0; number < 1000; ++number)
        store.put(std::to_string(1000 + number), "value", {});
    store.seal();
    store.flush();
    const ReadViewPtr_ view = store.view();
    for (int number = 0; number < 999; ++number)
        EXPECT_EQ(readRecord(*view, std::to_string(1000 + number) + "x", nullptr).code(), Status::NotFound);
    EXPECT_EQ(readRecord(*view, "0", nullptr).code(), Status::NotFound); // in no table's range
    EXPECT_EQ(readRecord(*view, "1500", nullptr), kOk);
    EXPECT_EQ(store.counters->bloomNegativeCount.value() + store.counters->bloomFalsePositiveCount.value(), 999u);
    EXPECT_LT(store.counters->bloomFalsePositiveCount.value(), 50u);
    EXPECT_GT(store.counters->bloomNegativeCount.value(), 900u);
}

/// What every way to read the record "m" gives, which stands between "a" and "z" and has the color "red".
void expectAllFail(const ReadViewPtr_& view, Status::Code code, const std::string& message, bool keysOnlyFails) {
    ZnByteArray value;
    ZnVector<std::optional<ZnByteArray>> values;
    ZnVector<ZnByteArray> keys;
    keys.append(ZnByteArray(std::string_view("m")));
    const auto expectStatus = [&](const Status& status) {
        EXPECT_EQ(status.code(), code);
        EXPECT_THAT(status.message().str(), testing::HasSubstr(message));
    };
    expectStatus(readRecord(*view, "m", &value));
    expectStatus(readRecords(*view, keys, &values));
    EXPECT_TRUE(value.isNull() && values.isEmpty());
    ZnEmbeddedDbRange range;
    for (const bool isReverse : {false, true}) {
        range.reverse = isReverse;
        ZnEmbeddedDbIterator scan = openScan(view, range);
        for (; scan.valid(); scan.next())
            EXPECT_EQ(scan.key(), isReverse ? "z" : "a");
        expectStatus(scan.status());
    }
    ZnEmbeddedDbIterator lookup = openIndexLookup(view, "color", "red");
    EXPECT_FALSE(lookup.valid());
    expectStatus(lookup.status());
    range.keysOnly = true;
    ZnEmbeddedDbIterator keysOnly = openScan(view, range);
    while (keysOnly.valid())
        keysOnly.next();
    EXPECT_EQ(keysOnly.status().isOk(), !keysOnlyFails);
}

TEST(ReadPath, ABlobFileThatCannotBeReadEndsEveryWayOfReadingWithAStatus) {
    StoreViewFixture store;
    const std::string value(1000, 'v');
    store.put("a", "inline", {});
    store.put("m", value, {"red"});
    store.put("z", "inline", {});
    store.seal();
    store.flush();
    const ZnString path = "/s/blobs/BLOB-2.dat";
    expectAllFail((store.files.put(path, value.substr(1)), store.view()), Status::Corruption,
                  "beyond the end of its file: /s/blobs/BLOB-2.dat at 0", false);
    expectAllFail((store.files.put(path, "x" + value.substr(1)), store.view()), Status::Corruption,
                  "checksum mismatch: /s/blobs/BLOB-2.dat at 0", false);
    store.files.remove(path);
    expectAllFail(store.view(), Status::IoError, "/s/blobs/BLOB-2.dat", false);
}

TEST(ReadPath, ATableThatIsDamagedBehindItsOpeningEndsEveryWayOfReadingWithAStatus) {
    const struct {
        const char* message;
        std::size_t offset;
        char byte;
    } rows[] = {
        {"stored value does not parse: /s/tables/L0-1.sst at ", 4 + 1 + 8 + 4 + 4, '\7'}, // storage
        {"stored value does not parse: /s/tables/L0-1.sst at ", 4 + 1 + 8, '\2'},         // inline, but called a blob
        {"table block does not decode: /s/tables/L0-1.sst", 4 + 1 + 8, '\3'},             // no type of record
        {"table block does not decode: /s/tables/L0-1.sst", 4 + 1 + 8 + 4 + 3, '\1'},     // length of the value
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.offset);
        StoreViewFixture store;
        for (const char* key : {"a", "m", "z"})
            store.put(key, "some value", {"red"});
        store.put("a", "some value", {});
        store.put("z", "some value", {});
        store.seal();
        store.flush();
        RecordView_ record;
        const TableHandle_& table = *store.tables.primaryView.front();
        ASSERT_EQ(table.find("m", &record), TableHandle_::Find::Found);
        const_cast<char*>(record.key.data())[row.offset - 4] = row.byte; // of the mapping
        const bool isBlock = std::string_view(row.message).starts_with("table block");
        if (!isBlock)
            expectAllFail(store.view(), Status::Corruption, row.message, true);
        ZnByteArray value;
        const Status status = readRecord(*store.view(), "m", &value);
        EXPECT_EQ(status.code(), Status::Corruption);
        EXPECT_THAT(status.message().str(), testing::HasSubstr(row.message));
        for (const bool isReverse : {false, true}) { // going back, the whole block has to be walked over first
            ZnEmbeddedDbRange range;
            range.reverse = isReverse;
            ZnEmbeddedDbIterator scan = openScan(store.view(), range);
            for (; scan.valid(); scan.next())
                EXPECT_TRUE(scan.key() == (isReverse && !isBlock ? "z" : "a"));
            EXPECT_EQ(scan.status(), status);
        }
    }
}

} // namespace
