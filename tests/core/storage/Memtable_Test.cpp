#include "core/storage/embeddeddb/Memtable_.h"
#include "core/storage/StoreTestSupport.h"
#include "core/storage/embeddeddb/IndexKey_.h"

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

TEST(IndexKey_, WhatIsNoneDoesNotComeApart) {
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

TEST(Memtable_, TwoBecomeOneWithTheOlderLogAndTheNewerRecords) {
    for (const bool isNewerFirst : {false, true}) {
        Memtable_ tables[2];
        tables[0].walId = 5;
        tables[1].walId = 7;
        ASSERT_TRUE(apply(&tables[0], putOf("apple", "red", {"red"}), 4));
        ASSERT_TRUE(apply(&tables[0], putOf("pear", "green"), 5));
        ASSERT_TRUE(apply(&tables[1], putOf("apple", "green", {"green"}, {"red"}), 6));
        Memtable_& merged = tables[isNewerFirst ? 1 : 0];
        const std::uint64_t byteCount = tables[0].approximateBytes() + tables[1].approximateBytes();
        merged.merge(tables[isNewerFirst ? 0 : 1]);
        EXPECT_EQ(merged.walId, 5u);
        EXPECT_EQ(merged.minSequence(), 4u);
        EXPECT_EQ(merged.maxSequence(), 6u);
        EXPECT_EQ(merged.approximateBytes(), byteCount);
        EXPECT_EQ(merged.find("apple")->value.view(), "green");
        EXPECT_EQ(merged.find("pear")->sequence, 5u);
        EXPECT_TRUE(merged.findIndex("color", indexKeyOf("red", "apple"))->tombstone);
    }
}

} // namespace
