#include "core/types/ZnByteArray.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

/// Content, and the terminator behind it.
void expectHolds(const ZnByteArray& bytes, std::string_view content) {
    EXPECT_EQ(bytes.view(), content);
    EXPECT_EQ(bytes.data()[bytes.size()], '\0');
}

TEST(ZnByteArray, TellsNullFromEmptyAndOrdersItFirst) {
    const ZnByteArray null(nullptr, 0);
    EXPECT_TRUE(null.isNull());
    for (const bool isCleared : {true, false}) {
        ZnByteArray bytes;
        isCleared ? bytes.clear() : bytes.append("", 0);
        EXPECT_FALSE(bytes.isNull());
        expectHolds(bytes, "");
        EXPECT_FALSE(bytes < null);
        EXPECT_TRUE(null < ZnByteArray("a", 1) && ZnByteArray("a", 1) < ZnByteArray("\xFF", 1));
    }
}

TEST(ZnByteArray, MoveLeavesTheSourceNull) {
    const std::string content("a\0b", 3);
    ZnByteArray source(content);
    ZnByteArray target(std::move(source));
    expectHolds(target, content);
    EXPECT_TRUE(source.isNull());
    expectHolds(source, "");
    source = std::move(target);
    EXPECT_TRUE(target.isNull());
    target = source;
    source[1] = 'x';
    expectHolds(target, content);
    target = ZnByteArray(ZnByteArray());
    EXPECT_TRUE(target.isNull());
}

TEST(ZnByteArray, StreamsLikeAString) {
    std::mt19937 random(7);
    ZnByteArray bytes;
    std::string model;
    for (int step = 0; step < 20000; ++step) {
        const std::size_t at = random() % (model.size() + 1);
        const bool isOwn = random() % 4 == 0; // what is put in comes from the array itself
        const auto letter = static_cast<char>('a' + step % 26);
        const std::string chunk = isOwn ? model.substr(at, 40) : std::string(random() % 40, letter);
        const char* const from = isOwn ? bytes.data() + at : chunk.data();
        const auto action = random() % 8;
        if (action == 0) {
            bytes.insert(at / 2, from, chunk.size());
            model.insert(at / 2, chunk);
        } else if (action <= 3) {
            bytes.append(from, chunk.size());
            model += chunk;
        } else if (action == 4) {
            bytes.reserve(random() % 500);
        } else {
            bytes.consumeFront(at / 2);
            model.erase(0, at / 2);
        }
        ASSERT_EQ(bytes.view(), model) << "step " << step;
        ASSERT_EQ(bytes.data()[bytes.size()], '\0');
    }
    bytes.assign("abcdef", 6);
    bytes.assign(bytes.data() + 1, 4);
    model = "bcde";
    for (int round = 0; round < 8; ++round) { // with room and without
        bytes.append(bytes.data(), bytes.size());
        model += model;
    }
    expectHolds(bytes, model);
    bytes.consumeFront(model.size() + 1);
    expectHolds(bytes, "");
}

// Moving the rest at every step would take minutes here.
TEST(ZnByteArray, ConsumesAndRefillsInLinearTime) {
    constexpr std::size_t kBytes = 4u << 20;
    ZnByteArray bytes(std::string(kBytes, 'x'));
    for (std::size_t step = 0; step < kBytes; ++step) {
        bytes.consumeFront(1);
        bytes.append("y", 1);
    }
    EXPECT_EQ(bytes.view(), std::string(kBytes, 'y'));
}

} // namespace
