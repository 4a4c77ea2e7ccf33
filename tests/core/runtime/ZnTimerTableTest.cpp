#include "core/runtime/ZnTimerTable.h"

#include <gtest/gtest.h>
#include <map>
#include <random>

namespace {

TEST(ZnTimerTable, AgreesWithASortedMapUnderRandomUse) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    ZnTimerTable table;
    std::map<std::pair<long long, int>, int> expected; // due time and id
    std::map<int, long long> dueById;
    for (int step = 0; step < 20000; ++step) {
        const auto action = random() % 3;
        if (action == 0 || dueById.empty()) {
            const long long dueNs = static_cast<long long>(random() % 1000);
            const int id = table.add([] {}, 1, true, 2, dueNs)->id;
            dueById[id] = dueNs;
            expected[{dueNs, id}] = id;
        } else if (action == 1) {
            auto victim = dueById.lower_bound(static_cast<int>(random() % static_cast<unsigned long>(step + 1)));
            if (victim == dueById.end())
                victim = dueById.begin();
            ASSERT_NE(table.remove(victim->first), nullptr);
            EXPECT_EQ(table.remove(victim->first), nullptr);
            expected.erase({victim->second, victim->first});
            dueById.erase(victim);
        } else {
            const std::shared_ptr<ZnTimerRecord> record = table.takeNext(1);
            ASSERT_EQ(record->id, expected.begin()->second);
            table.forget(record->id);
            dueById.erase(record->id);
            expected.erase(expected.begin());
        }
        ASSERT_EQ(table.next(1) != nullptr, !expected.empty());
        if (!expected.empty()) {
            ASSERT_EQ(table.next(1)->id, expected.begin()->second);
        }
        ASSERT_EQ(table.size(), dueById.size());
    }
}

} // namespace
