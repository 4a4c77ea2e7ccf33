#include "core/types/ZnTask.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <memory>

namespace {

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
