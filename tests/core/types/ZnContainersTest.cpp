#include "core/types/ExpectThrows.h"
#include "core/types/ZnList.h"
#include "core/types/ZnMap.h"
#include "core/types/ZnString.h"
#include "core/types/ZnTask.h"
#include "core/types/ZnVector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <memory>

namespace {

using testing::ElementsAre;
using testing::Pair;

TEST(ZnList, KeepsOrderThroughEdits) {
    ZnList<int> list{1, 2};
    list.insert(list.size(), 4);
    list.insert(2, 3);
    EXPECT_THAT(list, ElementsAre(1, 2, 3, 4));
    list.removeAt(1);
    EXPECT_EQ(list.takeFirst(), 1);
    EXPECT_THAT(list, ElementsAre(3, 4));
    EXPECT_EQ(list.first(), 3);
    EXPECT_EQ(list.last(), 4);
    list.removeAt(list.size() - 1);
    list.removeAt(list.size() - 1);
    EXPECT_TRUE(list.isEmpty());
}

template <typename Sequence>
void expectEmptyAccessThrows() {
    Sequence empty;
    expectThrows<std::runtime_error>("Cannot access first element of an empty container",
                                     [&] { empty.first(); });
    expectThrows<std::runtime_error>("Cannot access first element of an empty container",
                                     [&] { empty.takeFirst(); });
    expectThrows<std::runtime_error>("Cannot access last element of an empty container",
                                     [&] { empty.last(); });
}

TEST(ZnList, MisuseThrowsWithItsText) {
    expectEmptyAccessThrows<ZnList<int>>();
    ZnList<int> list{1};
    expectThrows<std::out_of_range>("Index out of range", [&] { list.removeAt(1); });
    expectThrows<std::out_of_range>("Index out of range", [&] { list.insert(2, 9); });
    EXPECT_THAT(list, ElementsAre(1));
}

TEST(ZnVector, RemovesByIndexAndValue) {
    expectEmptyAccessThrows<ZnVector<int>>();
    ZnVector<int> vector{5, 6, 5};
    vector.removeOne(7);
    EXPECT_THAT(vector, ElementsAre(5, 6, 5));
    vector.removeOne(5);
    EXPECT_THAT(vector, ElementsAre(6, 5));
    for (int index : {-1, 2})
        expectThrows<std::out_of_range>("ZnVector::removeAt index out of range",
                                        [&] { vector.removeAt(index); });
    vector.removeAt(0);
    EXPECT_THAT(vector, ElementsAre(5));
}

TEST(ZnMap, FindsByViewAndKeepsByteOrder) {
    ZnMap<ZnString, int> map;
    map.insert("b", 1);
    map["ab"] = 2;
    map.insert("b", 3);
    map.slotNearEnd("c") = 4;
    map.slotNearEnd("a") = 5;
    EXPECT_THAT(map, ElementsAre(Pair("a", 5), Pair("ab", 2), Pair("b", 3), Pair("c", 4)));
    EXPECT_TRUE(map.contains(std::string_view("ab")));
    EXPECT_EQ(map.value(std::string_view("b"), -1), 3);
    EXPECT_EQ(map.value("x", -1), -1);
    EXPECT_TRUE(map.remove("ab"));
    EXPECT_FALSE(map.remove("ab"));
}

TEST(ZnTask, OwnsItsCallableInsideAndOnTheHeap) {
    auto token = std::make_shared<int>(0);
    std::array<char, 100> bulk{};
    {
        ZnTask small([token] { ++*token; });
        ZnTask large([token, bulk] { *token += 10 + bulk[0]; });
        ZnTask moved(std::move(small));
        EXPECT_FALSE(static_cast<bool>(small));
        moved();
        large();
        moved = std::move(large);
        moved();
        EXPECT_EQ(*token, 21);
        EXPECT_EQ(token.use_count(), 2);
    }
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_FALSE(static_cast<bool>(ZnTask(std::function<void()>())));
}

} // namespace
