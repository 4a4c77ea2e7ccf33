// What a store shows, however its records are spread over memory and tables, and what it says when it cannot.

#include "core/storage/StoreBench.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <random>

using namespace znEmbeddedDbDetail;

namespace {

struct Row {
    std::string key; // of an iterator over an index: behind the secondary one and a slash
    std::string value;
    std::uint64_t sequence = 0;
    std::set<std::string> colors;

    bool operator==(const Row& other) const = default;
    friend void PrintTo(const Row& row, std::ostream* out) {
        *out << testing::PrintToString(row.key) << "=" << testing::PrintToString(row.value) << "@" << row.sequence;
    }
};
using Rows = std::vector<Row>;
using Model = std::map<std::string, Row>;

/// What the iterator gives from where it stands, until it ends Ok.
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
    explicit RandomStore(std::uint64_t seed) : random_(seed) {
        bench_.store.close();
        options_.blobThresholdBytes = 20;
        options_.maxLevel1Tables = static_cast<std::uint32_t>(below(4));
        options_.verifyFilters = below(4) > 0;
        bench_.open(options_);
    }

    void change() {
        switch (below(40)) {
        case 0: bench_.store.snapshot(); break; // seals the memtable
        case 1:
        case 2: bench_.flush(); break; // and at times a compaction in the background
        case 3: EXPECT_TRUE(below(4) > 0 || bench_.store.compact().isOk()); break;
        case 4: EXPECT_TRUE(below(4) > 0 || bench_.store.collectGarbage().isOk()); break;
        default: write();
        }
    }
    void keepView() {
        snapshot_ = bench_.store.snapshot();
        EXPECT_EQ(snapshot_->sequence(), bench_.store.stats().lastCommittedSequence);
        iterator_ = bench_.store.scan();
        modelOfView_ = model_;
    }
    /// Everything is there, and an iterator and a snapshot still show what they were made for, whether the store is
    /// closed meanwhile or not.
    void check() {
        checkPoints(model_, nullptr);
        checkPoints(modelOfView_, snapshot_);
        bench_.store.close();
        EXPECT_EQ(rowsOf(std::move(iterator_)), rowsIn(modelOfView_, {}));
        bench_.open(options_);
        for (int round = 0; round < 40; ++round) {
            checkScan(model_, nullptr);
            checkIndex(model_, nullptr);
            checkScan(modelOfView_, snapshot_);
            checkIndex(modelOfView_, snapshot_);
        }
    }

private:
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
    void write() {
        bench_.setRetires(below(3) > 0);
        const std::string key = text(4);
        if (below(4) == 0) {
            EXPECT_EQ(bench_.store.remove(key), kOk);
            model_.erase(key);
            return;
        }
        Row row{key, text(40), 0, {text(2), text(2)}};
        ZnEmbeddedDbIndexKeys indexKeys;
        for (const std::string& color : row.colors)
            indexKeys["color"].append(ZnByteArray(color));
        EXPECT_EQ(bench_.store.put(key, row.value, indexKeys), kOk);
        row.sequence = bench_.store.stats().lastCommittedSequence;
        model_[key] = row;
    }
    ZnEmbeddedDbRange range(const ZnEmbeddedDbSnapshotPtr& snapshot) {
        const auto bound = [&] { return ZnByteArray(below(2) == 0 ? std::string() : text(3)); };
        ZnEmbeddedDbRange range;
        range.start = bound();
        range.end = bound();
        range.prefix = bound();
        range.reverse = below(2) == 0;
        range.keysOnly = below(4) == 0;
        if (below(3) == 0)
            range.limit = below(6);
        range.snapshot = snapshot;
        return range;
    }
    void checkScan(const Model& model, const ZnEmbeddedDbSnapshotPtr& snapshot) {
        const ZnEmbeddedDbRange asked = range(snapshot);
        EXPECT_EQ(rowsOf(bench_.store.scan(asked)), arranged(rowsIn(model, asked), asked));
    }
    static Rows rowsIn(const Model& model, const ZnEmbeddedDbRange& range) {
        Rows rows;
        for (const auto& [key, row] : model)
            if (isInRange(key, range))
                rows.push_back(row);
        return rows;
    }
    void checkIndex(const Model& model, const ZnEmbeddedDbSnapshotPtr& snapshot) {
        const ZnEmbeddedDbRange asked = range(snapshot);
        const std::string color = text(2);
        std::map<std::pair<std::string, std::string>, Row> ofRange;
        Rows ofColor;
        for (const auto& [key, row] : model) {
            for (const std::string& each : row.colors)
                if (isInRange(each, asked))
                    ofRange[{each, key}] = named(row, each);
            if (row.colors.count(color) != 0)
                ofColor.push_back(named(row, color));
        }
        Rows rows;
        for (const auto& [keys, row] : ofRange)
            rows.push_back(row);
        EXPECT_EQ(rowsOf(bench_.store.indexScan("color", asked)), arranged(rows, asked));
        EXPECT_EQ(rowsOf(bench_.store.indexLookup("color", color, snapshot)), ofColor);
    }
    void checkPoints(const Model& model, const ZnEmbeddedDbSnapshotPtr& snapshot) {
        ZnVector<ZnByteArray> keys;
        for (int count = 0; count < 50; ++count)
            keys.append(ZnByteArray(text(4)));
        ZnVector<std::optional<ZnByteArray>> values;
        ASSERT_EQ(bench_.store.multiGet(keys, &values, snapshot), kOk);
        ASSERT_EQ(values.size(), keys.size());
        for (std::size_t index = 0; index < keys.size(); ++index) {
            const auto expected = model.find(std::string(keys[index].view()));
            ZnByteArray value(std::string_view("as it was"));
            const Status status = bench_.store.get(keys[index], &value, snapshot);
            ASSERT_EQ(values[index].has_value(), expected != model.end());
            ASSERT_EQ(status.code(), values[index] ? Status::Ok : Status::NotFound);
            EXPECT_EQ(value.view(), values[index] ? expected->second.value : "as it was");
            EXPECT_TRUE(!values[index] || *values[index] == value);
        }
    }
    static Row named(Row row, const std::string& color) {
        row.key = (color.empty() ? "" : color + "/") + row.key;
        return row;
    }

    std::mt19937_64 random_;
    StoreBench bench_;
    Model model_;
    ZnEmbeddedDbOptions options_ = quietOptions();
    ZnEmbeddedDbSnapshotPtr snapshot_;
    ZnEmbeddedDbIterator iterator_{Status()};
    Model modelOfView_;
};

TEST(ReadPath, GivesWhatAMapWouldGiveHoweverTheRecordsAreSpread) {
    const std::uint64_t firstSeed = testSeed();
    for (std::uint64_t seed = firstSeed; seed < firstSeed + 15 && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        RandomStore random(seed);
        for (int step = 0; step < 900; ++step) {
            random.change();
            if (step == 600)
                random.keepView();
        }
        random.check();
    }
}

TEST(ReadPath, SourcesThatLieBehindEachOtherOrShareLongPrefixesAreMergedInOrder) {
    StoreBench bench;
    bench.gates->hold("compaction.begun"); // so that all tables stay
    const std::string common(70, 'k');
    for (int part = 0; part < 12; ++part) { // the first half one behind the other, the rest overlapping
        for (int number = 0; number < 400; ++number)
            bench.put(common + std::to_string(part < 6 ? 1000000 + part * 1000 + number : 1003000 + number * 7 + part),
                      std::to_string(part));
        bench.store.snapshot(); // seals the memtable
        if (part % 3 != 2)
            bench.flush();
    }
    EXPECT_EQ(bench.tableViews().primaryView.size(), 8U);
    ASSERT_TRUE(bench.gates->isHeld("compaction.begun"));
    ZnEmbeddedDbRange range;
    EXPECT_EQ(shown(bench.store.scan(range)), bench.expected);
    range.reverse = true;
    EXPECT_EQ(shown(bench.store.scan(range), true), bench.expected);
    bench.gates->letGo("compaction.begun");
}

TEST(ReadPath, FiltersAreCounted) {
    StoreBench bench;
    for (int number = 0; number < 1000; ++number)
        bench.put(std::to_string(1000 + number), "");
    bench.flush();
    for (int number = 0; number < 999; ++number)
        EXPECT_EQ(bench.store.contains(std::to_string(1000 + number) + "x").code(), Status::NotFound);
    EXPECT_EQ(bench.store.contains("0").code(), Status::NotFound); // in no table's range
    EXPECT_EQ(bench.store.contains("1500"), kOk);
    const ZnEmbeddedDbStats stats = bench.store.stats();
    EXPECT_EQ(stats.bloomNegativeCount + stats.bloomFalsePositiveCount, 999u);
    EXPECT_LT(stats.bloomFalsePositiveCount, 50u);
}

/// What every way to read the record "m" gives, which stands between "a" and "z" and has the tag "v".
void expectAllFail(const ZnEmbeddedDb& store, Status::Code code, const std::string& message, bool keysOnlyFails) {
    ZnByteArray value;
    ZnVector<std::optional<ZnByteArray>> values;
    ZnVector<ZnByteArray> keys;
    keys.append(ZnByteArray(std::string_view("m")));
    const auto expectStatus = [&](const Status& status) {
        EXPECT_EQ(status.code(), code);
        EXPECT_THAT(status.message().str(), testing::HasSubstr(message));
    };
    expectStatus(store.get("m", &value));
    expectStatus(store.multiGet(keys, &values));
    EXPECT_TRUE(value.isNull() && values.isEmpty());
    ZnEmbeddedDbRange range;
    for (const bool isReverse : {false, true}) {
        range.reverse = isReverse;
        ZnEmbeddedDbIterator scan = store.scan(range);
        for (; scan.valid(); scan.next())
            EXPECT_EQ(scan.key(), isReverse ? "z" : "a");
        expectStatus(scan.status());
    }
    ZnEmbeddedDbIterator lookup = store.indexLookup("tag", "v");
    EXPECT_FALSE(lookup.valid());
    expectStatus(lookup.status());
    range.keysOnly = true;
    ZnEmbeddedDbIterator keysOnly = store.scan(range);
    while (keysOnly.valid())
        keysOnly.next();
    EXPECT_EQ(keysOnly.status().isOk(), !keysOnlyFails);
}

/// Every record has a tag of its own; only the value of "m" may be a long one.
void fill(StoreBench* bench, const std::string& value) {
    bench->put("a", "inline");
    bench->put("m", value);
    bench->putAndFlush("z", "last");
}

TEST(ReadPath, ABlobFileThatCannotBeReadEndsEveryWayOfReadingWithAStatus) {
    const std::string value(1000, 'v');
    const struct {
        const char* message;
        Status::Code code;
        std::string content; // empty: no file
    } rows[] = {
        {"beyond the end of its file: /s/blobs/BLOB-2.dat at 0", Status::Corruption, value.substr(1)},
        {"checksum mismatch: /s/blobs/BLOB-2.dat at 0", Status::Corruption, "x" + value.substr(1)},
        {"/s/blobs/BLOB-2.dat", Status::IoError, ""},
    };
    for (const auto& row : rows) {
        StoreBench bench;
        fill(&bench, value);
        ASSERT_EQ(bench.files.remove("/s/blobs/BLOB-2.dat"), 0);
        if (!row.content.empty())
            bench.files.put("/s/blobs/BLOB-2.dat", row.content);
        expectAllFail(bench.store, row.code, row.message, false);
    }
}

TEST(ReadPath, ATableThatIsDamagedAfterItsOpeningEndsEveryWayOfReadingWithAStatus) {
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
        StoreBench bench;
        fill(&bench, "value");
        RecordView_ record;
        const auto table = bench.table();
        ASSERT_EQ(table->find("m", &record), TableHandle_::Find::Found);
        const_cast<char*>(record.key.data())[row.offset - 4] = row.byte; // of the mapping
        const bool isBlock = std::string_view(row.message).starts_with("table block");
        if (!isBlock)
            expectAllFail(bench.store, Status::Corruption, row.message, true);
        ZnByteArray value;
        const Status status = bench.store.get("m", &value);
        EXPECT_EQ(status.code(), Status::Corruption);
        EXPECT_THAT(status.message().str(), testing::HasSubstr(row.message));
        for (const bool isReverse : {false, true}) { // going back, the whole block has to be walked over first
            ZnEmbeddedDbRange range;
            range.reverse = isReverse;
            ZnEmbeddedDbIterator scan = bench.store.scan(range);
            for (; scan.valid(); scan.next())
                EXPECT_TRUE(scan.key() == (isReverse && !isBlock ? "z" : "a"));
            EXPECT_EQ(scan.status(), status);
        }
    }
}

} // namespace
