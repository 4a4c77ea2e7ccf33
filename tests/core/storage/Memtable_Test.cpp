#include "core/storage/embeddeddb/Memtable_.h"
#include "core/storage/StoreTestSupport.h"
#include "core/storage/embeddeddb/IndexKey_.h"

#include <map>

using namespace znEmbeddedDbDetail;

namespace {

std::string indexKeyOf(std::string_view secondary, std::string_view primary) {
    std::string key;
    appendIndexKey(&key, secondary, primary);
    return key;
}

/// Does to the memtable what reading a batch of one operation from a log does.
bool apply(Memtable_* memtable, const WalBatch_& filled, std::uint64_t sequence) {
    WalBatch_ batch = filled;
    const std::string_view frame = batch.seal(1, sequence, 0);
    WalOperationReader_ reader(frame.substr(kWalFrameHeaderBytes), 1);
    WalOperation_ operation;
    return reader.next(&operation) && reader.isComplete() && memtable->apply(operation, sequence);
}

WalBatch_ putOf(std::string_view key, std::string_view value, const std::vector<std::string>& colors = {},
                const std::vector<std::string>& retiredColors = {}) {
    IndexKeys_ indexKeys;
    RetiredKeys_ retired;
    for (const std::string& color : colors)
        indexKeys["color"].append(ZnByteArray(color));
    for (const std::string& color : retiredColors)
        retired.append({"color", ZnByteArray(color)});
    WalBatch_ batch;
    batch.put(key, value, indexKeys, retired);
    return batch;
}

TEST(IndexKey_, StandsInTheOrderOfSecondaryThenPrimaryKeyAndComesApartAgain) {
    const std::string alphabet("\0\1\xFF"
                               "a",
                               4);
    std::mt19937_64 random(5);
    const auto text = [&] {
        std::string out;
        for (std::uint64_t left = random() % 4; left > 0; --left)
            out += alphabet[random() % alphabet.size()];
        return out;
    };
    for (int round = 0; round < 20000; ++round) {
        const std::pair<std::string, std::string> left(text(), text());
        const std::pair<std::string, std::string> right(text(), text());
        const std::string leftKey = indexKeyOf(left.first, left.second);
        const std::string rightKey = indexKeyOf(right.first, right.second);
        ASSERT_EQ(leftKey < rightKey, left < right);
        std::string prefix;
        appendIndexPrefix(&prefix, left.first);
        ASSERT_EQ(rightKey.starts_with(prefix), left.first == right.first);
        std::string secondary;
        std::string_view primary;
        ASSERT_TRUE(splitIndexKey(leftKey, &secondary, &primary));
        ASSERT_EQ(std::pair(secondary, std::string(primary)), left);
    }
    std::string secondary;
    std::string_view primary;
    for (const std::string_view none :
         {std::string_view(""), std::string_view("a"), std::string_view("a\0", 2), std::string_view("a\0\2b", 4)})
        EXPECT_FALSE(splitIndexKey(none, &secondary, &primary));
}

TEST(Memtable_, DoesWhatTheLogTells) {
    Memtable_ memtable;
    EXPECT_TRUE(memtable.isEmpty());
    ASSERT_TRUE(apply(&memtable, putOf("apple", "red", {"red"}), 4));
    EXPECT_EQ(memtable.approximateBytes(), 5 + 3 + 3 + 128 + (3 + 2 + 5) + 128u);
    ASSERT_TRUE(apply(&memtable, putOf("apple", "green", {"green", "sour"}, {"red"}), 6));
    WalBatch_ removal;
    removal.remove("pear");
    ASSERT_TRUE(apply(&memtable, removal, 5));
    EXPECT_EQ(memtable.minSequence(), 4u);
    EXPECT_EQ(memtable.maxSequence(), 6u);
    ASSERT_NE(memtable.find("apple"), nullptr);
    EXPECT_EQ(memtable.find("apple")->value.view(), "green");
    EXPECT_EQ(memtable.find("apple")->indexKeys().value("color").size(), 2u);
    EXPECT_TRUE(memtable.find("pear")->tombstone);
    EXPECT_EQ(memtable.find("plum"), nullptr);
    EXPECT_TRUE(memtable.findIndex("color", indexKeyOf("red", "apple"))->tombstone);
    EXPECT_FALSE(memtable.findIndex("color", indexKeyOf("sour", "apple"))->tombstone);
    EXPECT_EQ(memtable.findIndex("taste", indexKeyOf("sour", "apple")), nullptr);
    memtable.sort();
    EXPECT_EQ(memtable.sortedIndexKeys("color").size(), 3u);
    EXPECT_TRUE(memtable.sortedIndexKeys("taste").empty());
    EXPECT_FALSE(memtable.apply({false, "plum", "no stored value", 0, {}}, 7));
    EXPECT_EQ(memtable.find("plum"), nullptr);
}

TEST(Memtable_, HoldsTheNewestOfEachKeyHoweverItIsMerged) {
    std::mt19937_64 random(17);
    for (int round = 0; round < 50; ++round) {
        Memtable_ tables[3];
        std::map<std::string, std::pair<std::uint64_t, std::string>> model;
        std::map<std::string, std::uint64_t> indexModel;
        for (int step = 0; step < 300; ++step) {
            const std::string key = std::to_string(random() % 40);
            const std::uint64_t sequence = 1 + random() % 1000;
            const std::string value = key + "@" + std::to_string(sequence); // equal sequences, equal values
            ASSERT_TRUE(apply(&tables[random() % 3], putOf(key, value, {"c"}), sequence));
            auto& newest = model[key];
            newest = std::max(newest, {sequence, value});
            indexModel[indexKeyOf("c", key)] = newest.first;
        }
        tables[0].walId = 7;
        tables[1].walId = 5;
        const std::uint64_t byteCount =
            tables[0].approximateBytes() + tables[1].approximateBytes() + tables[2].approximateBytes();
        tables[0].merge(tables[1]);
        tables[0].merge(tables[2]);
        tables[0].sort();
        EXPECT_EQ(tables[0].walId, 5u);
        EXPECT_EQ(tables[0].approximateBytes(), byteCount);
        ASSERT_EQ(tables[0].sortedKeys().size(), model.size());
        ASSERT_EQ(tables[0].sortedIndexKeys("color").size(), indexModel.size());
        auto expected = model.begin();
        for (const auto* entry : tables[0].sortedKeys()) {
            EXPECT_EQ(entry->first.view(), expected->first);
            EXPECT_EQ(entry->second.value.view(), expected->second.second);
            ++expected;
        }
        auto expectedIndex = indexModel.begin();
        for (const auto* entry : tables[0].sortedIndexKeys("color")) {
            EXPECT_EQ(entry->first.view(), expectedIndex->first);
            EXPECT_EQ(entry->second.sequence, expectedIndex->second);
            ++expectedIndex;
        }
    }
}

} // namespace
