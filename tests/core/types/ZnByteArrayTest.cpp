#include "core/types/ZnByteArray.h"

#include "core/types/ExpectThrows.h"

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

TEST(ZnByteArray, TellsNullFromEmpty) {
    EXPECT_TRUE(ZnByteArray(nullptr, 0).isNull());
    EXPECT_FALSE(ZnByteArray(ZnString()).isNull());
    using Mutation = void (*)(ZnByteArray&);
    constexpr Mutation kMutations[] = {
        [](ZnByteArray& bytes) { bytes.clear(); },
        [](ZnByteArray& bytes) { bytes.append("", 0); },
        [](ZnByteArray& bytes) { bytes.insert(0, nullptr, 0); },
        [](ZnByteArray& bytes) { EXPECT_THROW(bytes[0], std::out_of_range); },
    };
    for (Mutation mutate : kMutations) {
        ZnByteArray bytes;
        mutate(bytes);
        EXPECT_FALSE(bytes.isNull());
        expectHolds(bytes, "");
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
    expectHolds(source, content);
    EXPECT_TRUE(target.isNull());
    target = source;
    source[1] = 'x';
    expectHolds(target, content);
    const ZnByteArray null;
    target = null;
    EXPECT_TRUE(target.isNull());
}

TEST(ZnByteArray, TakesSourcesFromItself) {
    ZnByteArray bytes(std::string_view("abcd"));
    bytes.reserve(100);
    bytes.insert(1, bytes.data() + 2, 2);
    expectHolds(bytes, "acdbcd");
    bytes.append(bytes.data(), bytes.size());
    expectHolds(bytes, "acdbcdacdbcd");
    bytes.assign(bytes.data() + 3, 4);
    expectHolds(bytes, "bcda");
}

TEST(ZnByteArray, MisuseThrowsWithItsText) {
    using Bad = std::invalid_argument;
    ZnByteArray bytes("ab", 2);
    expectThrows<Bad>("ZnByteArray: null pointer with data.", [&] { bytes.assign(nullptr, 1); });
    expectThrows<Bad>("ZnByteArray: null data with length.", [] { ZnByteArray(nullptr, 1); });
    expectThrows<Bad>("ZnByteArray: null pointer with positive length.", [&] { bytes.append(nullptr, 1); });
    expectThrows<Bad>("ZnByteArray: null pointer with positive length.", [&] { bytes.insert(0, nullptr, 1); });
    EXPECT_THROW(bytes[2], std::out_of_range);
    EXPECT_THROW(std::as_const(bytes)[2], std::out_of_range);
}

TEST(ZnByteArray, OrdersNullFirst) {
    const ZnByteArray ordered[] = {ZnByteArray(), ZnByteArray(std::string_view("a")),
                                   ZnByteArray(std::string_view("ab")), ZnByteArray(std::string_view("\xFF"))};
    for (int left = 0; left < 4; ++left) {
        for (int right = 0; right < 4; ++right)
            EXPECT_EQ(ordered[left] < ordered[right], left < right) << left << " " << right;
    }
    EXPECT_FALSE(ZnByteArray() < ZnByteArray("", 0));
    EXPECT_FALSE(ZnByteArray("", 0) < ZnByteArray());
}

TEST(ZnByteArray, ReadsWholeNumbersOnly) {
    struct Row {
        std::string text;
        int base;
        bool ok;
        long long value;
    };
    const Row kRows[] = {{"-ff", 16, true, -255}, {" 7", 10, true, 7}, {"7 ", 10, false, 0}, {"", 10, false, 0},
                         {"8", 8, false, 0},      {"1", 99, false, 0}, {"0x1f", 0, true, 31},
                         {std::string("7\0", 2), 10, false, 0},        {"9223372036854775808", 10, false, 0}};
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.text);
        bool ok = !row.ok;
        EXPECT_EQ(ZnByteArray(ZnString(row.text)).toLongLong(&ok, row.base), row.value);
        EXPECT_EQ(ok, row.ok);
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
    bytes.insert(99, "tail", 4);
    bytes.release();
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
    for (std::size_t step = 0; step < kBytes; ++step)
        bytes.consumeFront(1);
    EXPECT_TRUE(bytes.isEmpty());
}

} // namespace
