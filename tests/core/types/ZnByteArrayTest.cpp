#include "core/types/ZnByteArray.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
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

TEST(ZnByteArray, TakesSourcesFromItself) {
    ZnByteArray bytes(std::string_view("abcd"));
    bytes.reserve(100);
    bytes.insert(1, bytes.data() + 2, 2);
    expectHolds(bytes, "acdbcd");
    std::string doubled = "acdbcd";
    for (int round = 0; round < 8; ++round) { // with room and without
        bytes.append(bytes.data(), bytes.size());
        doubled += doubled;
    }
    expectHolds(bytes, doubled);
    bytes.assign(bytes.data() + 1, 4);
    expectHolds(bytes, "cdbc");
}

TEST(ZnByteArray, MisuseThrowsWithItsText) {
    using testing::ThrowsMessage;
    using Bad = std::invalid_argument;
    ZnByteArray bytes("ab", 2);
    EXPECT_THAT([&] { bytes.assign(nullptr, 1); }, ThrowsMessage<Bad>("ZnByteArray: null pointer with data."));
    EXPECT_THAT([] { ZnByteArray(nullptr, 1); }, ThrowsMessage<Bad>("ZnByteArray: null data with length."));
    const auto isRefused = ThrowsMessage<Bad>("ZnByteArray: null pointer with positive length.");
    EXPECT_THAT([&] { bytes.append(nullptr, 1); }, isRefused);
    EXPECT_THAT([&] { bytes.insert(0, nullptr, 1); }, isRefused);
    EXPECT_THROW(bytes[2], std::out_of_range);
    EXPECT_THROW(std::as_const(bytes)[2], std::out_of_range);
}

TEST(ZnByteArray, ReadsWholeNumbersOnly) {
    struct Row { std::string text; int base; bool ok; long long value; };
    const Row kRows[] = {{"-ff", 16, true, -255}, {" 7", 10, true, 7}, {"7 ", 10, false, 0}, {"", 10, false, 0},
                         {std::string("7\0", 2), 10, false, 0},        {"9223372036854775808", 10, false, 0}};
    for (const Row& row : kRows) {
        bool ok = !row.ok;
        EXPECT_EQ(ZnByteArray(ZnString(row.text)).toLongLong(&ok, row.base), row.value) << row.text;
        EXPECT_EQ(ok, row.ok) << row.text;
    }
}

TEST(ZnByteArray, StreamsLikeAString) {
    std::mt19937 random(7);
    ZnByteArray bytes;
    std::string model;
    for (int step = 0; step < 20000; ++step) {
        const std::string chunk(random() % 40, static_cast<char>('a' + step % 26));
        const std::size_t at = random() % (model.size() + 1);
        const auto action = random() % 8;
        if (action == 0) {
            bytes.insert(at, chunk.data(), chunk.size());
            model.insert(at, chunk);
        } else if (action <= 3) {
            bytes.append(chunk);
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
    bytes.consumeFront(model.size() + 10);
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
