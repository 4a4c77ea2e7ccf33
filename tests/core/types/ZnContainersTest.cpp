#include "core/types/ZnList.h"
#include "core/types/ZnTask.h"
#include "core/types/ZnVector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <memory>

namespace {

TEST(ZnList, MisuseThrowsWithItsText) {
    using testing::ThrowsMessage;
    using Empty = std::runtime_error;
    using Range = std::out_of_range;
    ZnList<int> list;
    ZnVector<int> vector;
    EXPECT_THAT([&] { list.first(); }, ThrowsMessage<Empty>("Cannot access first element of an empty container"));
    EXPECT_THAT([&] { list.takeFirst(); }, ThrowsMessage<Empty>("Cannot access first element of an empty container"));
    EXPECT_THAT([&] { list.last(); }, ThrowsMessage<Empty>("Cannot access last element of an empty container"));
    EXPECT_THAT([&] { list.insert(1, 9); }, ThrowsMessage<Range>("Index out of range"));
    EXPECT_THAT([&] { list.removeAt(0); }, ThrowsMessage<Range>("Index out of range"));
    for (int index : {-1, 0})
        EXPECT_THAT([&] { vector.removeAt(index); }, ThrowsMessage<Range>("ZnVector::removeAt index out of range"));
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
