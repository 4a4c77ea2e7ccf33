#include "core/types/ExpectThrows.h"
#include "core/types/ZnList.h"
#include "core/types/ZnTask.h"
#include "core/types/ZnVector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <memory>

namespace {

using testing::ElementsAre;

template <typename Sequence>
void expectEmptyAccessThrows() {
    using Error = std::runtime_error;
    Sequence empty;
    expectThrows<Error>("Cannot access first element of an empty container", [&] { empty.first(); });
    expectThrows<Error>("Cannot access first element of an empty container", [&] { empty.takeFirst(); });
    expectThrows<Error>("Cannot access last element of an empty container", [&] { empty.last(); });
}

TEST(ZnList, EditsInPlaceAndItsMisuseThrows) {
    expectEmptyAccessThrows<ZnList<int>>();
    ZnList<int> list{1, 2};
    list.insert(list.size(), 4);
    list.insert(2, 3);
    list.removeAt(1);
    EXPECT_EQ(list.takeFirst(), 1);
    expectThrows<std::out_of_range>("Index out of range", [&] { list.removeAt(2); });
    expectThrows<std::out_of_range>("Index out of range", [&] { list.insert(3, 9); });
    EXPECT_THAT(list, ElementsAre(3, 4));
}

TEST(ZnVector, RemovesByIndexAndValue) {
    expectEmptyAccessThrows<ZnVector<int>>();
    ZnVector<int> vector{5, 6, 5};
    vector.removeOne(7);
    vector.removeOne(5);
    EXPECT_THAT(vector, ElementsAre(6, 5));
    for (int index : {-1, 2})
        expectThrows<std::out_of_range>("ZnVector::removeAt index out of range", [&] { vector.removeAt(index); });
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
        moved = std::move(large);
        moved();
        EXPECT_EQ(*token, 11);
        EXPECT_EQ(token.use_count(), 2);
    }
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_FALSE(static_cast<bool>(ZnTask(std::function<void()>())));
}

} // namespace
