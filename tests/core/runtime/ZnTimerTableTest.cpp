#include "core/runtime/ZnTimerTable.h"

#include <gtest/gtest.h>
#include <random>
#include <set>

namespace {

TEST(ZnTimerTable, AgreesWithASortedMapUnderRandomUse) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    ZnTimerTable table;
    std::set<std::pair<long long, int>> expected; // due time and id
    for (int step = 0; step < 20000; ++step) {
        const auto action = random() % 4;
        if (action >= 2 || expected.empty()) { // grows to some hundred
            const long long dueNs = static_cast<long long>(random() % 1000);
            expected.emplace(dueNs, table.add([] {}, 1, true, 2, dueNs)->id);
        } else if (action == 1) {
            const auto found = expected.lower_bound({static_cast<long long>(random() % 1000), 0});
            const auto victim = found == expected.end() ? expected.begin() : found;
            ASSERT_NE(table.remove(victim->second), nullptr);
            EXPECT_EQ(table.remove(victim->second), nullptr);
            expected.erase(victim);
        } else {
            const std::shared_ptr<ZnTimerRecord> record = table.takeNext(1);
            ASSERT_EQ(record->id, expected.begin()->second);
            table.forget(record->id);
            expected.erase(expected.begin());
        }
        ASSERT_EQ(table.next(1) != nullptr, !expected.empty());
        ASSERT_EQ(table.size(), expected.size());
    }
}

} // namespace
