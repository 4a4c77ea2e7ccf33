#include "core/storage/embeddeddb/Memtable_.h"
#include "core/storage/StoreTestSupport.h"

using namespace znEmbeddedDbDetail;

namespace {

void insert(Memtable_* memtable, std::string_view key, std::string_view value, std::uint64_t sequence) {
    ValueEntry_ entry = inlineEntry(value);
    entry.sequence = sequence;
    memtable->insert(key, entry);
}

// Else a power cut would lose records whose log is deleted too early, or bring old ones back.
TEST(Memtable_, TwoBecomeOneWithTheOlderLogAndTheNewerRecords) {
    for (const bool isNewerFirst : {false, true}) {
        Memtable_ tables[2];
        tables[0].walId = 5;
        insert(&tables[0], "apple", "red", 4);
        tables[0].insertIndex("color", "red apple", {false, 4});
        insert(&tables[0], "pear", "green", 5);
        tables[1].walId = 7;
        insert(&tables[1], "apple", "green", 6);
        tables[1].insertIndex("color", "red apple", {true, 6});
        Memtable_& merged = tables[isNewerFirst ? 1 : 0];
        const std::uint64_t byteCount = tables[0].approximateBytes() + tables[1].approximateBytes();
        merged.merge(tables[isNewerFirst ? 0 : 1]);
        EXPECT_EQ(merged.walId, 5u);
        EXPECT_EQ(merged.minSequence(), 4u);
        EXPECT_EQ(merged.maxSequence(), 6u);
        EXPECT_EQ(merged.approximateBytes(), byteCount);
        EXPECT_EQ(merged.find("apple")->value.view(), "green");
        EXPECT_EQ(merged.find("pear")->sequence, 5u);
        EXPECT_TRUE(merged.findIndex("color", "red apple")->tombstone);
    }
}

} // namespace
