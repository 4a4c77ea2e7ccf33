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
    EXPECT_TRUE(ZnByteArray().isNull());
    EXPECT_TRUE(ZnByteArray(nullptr, 0).isNull());
    EXPECT_FALSE(ZnByteArray("", 0).isNull());
    EXPECT_FALSE(ZnByteArray(ZnString()).isNull());
    EXPECT_TRUE(ZnByteArray(ZnByteArray()).isNull());
    using Mutation = void (*)(ZnByteArray&);
    constexpr Mutation kMutations[] = {
        [](ZnByteArray& bytes) { bytes.clear(); },
        [](ZnByteArray& bytes) { bytes.assign(nullptr, 0); },
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
    EXPECT_THROW(std::as_const(source)[0], std::out_of_range);
    EXPECT_TRUE(source.isNull());
    EXPECT_THROW(source[0], std::out_of_range);
    EXPECT_FALSE(source.isNull());
    source = std::move(target);
    expectHolds(source, content);
    EXPECT_TRUE(target.isNull());
    target = source;
    source[1] = 'x';
    expectHolds(target, content);
    expectHolds(source, "axb");
    target = ZnByteArray();
    EXPECT_TRUE(target.isNull());
}

TEST(ZnByteArray, TakesSourcesFromItself) {
    ZnByteArray bytes(std::string_view("abcd"));
    bytes.insert(2, bytes.data() + 1, 3);
    expectHolds(bytes, "abbcdcd");
    bytes.append(bytes.data(), bytes.size());
    expectHolds(bytes, "abbcdcdabbcdcd");
    bytes.assign(bytes.data() + 3, 4);
    expectHolds(bytes, "cdcd");
    bytes.insert(99, "x", 1);
    expectHolds(bytes, "cdcdx");
}

TEST(ZnByteArray, MisuseThrowsWithItsText) {
    using Bad = std::invalid_argument;
    using Range = std::out_of_range;
    ZnByteArray bytes("ab", 2);
    const ZnByteArray constant = bytes;
    const ZnByteArray null;
    expectThrows<Bad>("ZnByteArray: null pointer with data.", [&] { bytes.assign(nullptr, 1); });
    expectThrows<Bad>("ZnByteArray: null data with length.", [] { ZnByteArray(nullptr, 1); });
    expectThrows<Bad>("ZnByteArray: null pointer with positive length.", [&] { bytes.append(nullptr, 1); });
    expectThrows<Bad>("ZnByteArray: null pointer with positive length.",
                      [&] { bytes.insert(0, nullptr, 1); });
    expectThrows<Range>("ZnByteArray::operator[] out of range.", [&] { bytes[2] = 'x'; });
    expectThrows<Range>("ZnByteArray::operator[] const out of range.", [&] { constant[2]; });
    expectThrows<Range>("ZnByteArray::operator[] const out of range.", [&] { null[0]; });
    expectHolds(bytes, "ab");
}

TEST(ZnByteArray, OrdersNullFirst) {
    const ZnByteArray null;
    const ZnByteArray empty("", 0);
    const ZnByteArray a(std::string_view("a"));
    const ZnByteArray ab(std::string_view("ab"));
    const ZnByteArray high(std::string_view("\xFF"));
    EXPECT_TRUE(null < a);
    EXPECT_FALSE(a < null);
    EXPECT_FALSE(null < null);
    EXPECT_FALSE(null < empty);
    EXPECT_FALSE(empty < null);
    EXPECT_TRUE(empty < a);
    EXPECT_TRUE(a < ab);
    EXPECT_FALSE(ab < a);
    EXPECT_TRUE(ab < high);
}

TEST(ZnByteArray, ReadsWholeNumbersOnly) {
    struct Row {
        std::string text;
        int base;
        bool ok;
        long long value;
    };
    const Row kRows[] = {{"123", 10, true, 123},
                         {"-ff", 16, true, -255},
                         {" 7", 10, true, 7},
                         {"7 ", 10, false, 0},
                         {"", 10, false, 0},
                         {std::string("7\0", 2), 10, false, 0},
                         {"8", 8, false, 0},
                         {"z", 36, true, 35},
                         {"1", 99, false, 0},
                         {"0x1f", 0, true, 31},
                         {"9223372036854775808", 10, false, 0}};
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.text);
        bool ok = !row.ok;
        EXPECT_EQ(ZnByteArray(ZnString(row.text)).toLongLong(&ok, row.base), row.value);
        EXPECT_EQ(ok, row.ok);
    }
    bool ok = true;
    EXPECT_EQ(ZnByteArray().toLongLong(&ok), 0);
    EXPECT_FALSE(ok);
}

TEST(ZnByteArray, StreamsLikeAString) {
    std::mt19937 random(7);
    ZnByteArray bytes;
    std::string model;
    for (int step = 0; step < 20000; ++step) {
        const std::string chunk(random() % 40, static_cast<char>('a' + step % 26));
        const std::size_t at = random() % (model.size() + 1);
        switch (random() % 8) {
        case 0:
            bytes.insert(at, chunk.data(), chunk.size());
            model.insert(at, chunk);
            break;
        case 1:
        case 2:
        case 3:
            bytes.append(chunk);
            model += chunk;
            break;
        case 4:
            bytes.reserve(random() % 500);
            break;
        default:
            bytes.consumeFront(at / 2);
            model.erase(0, at / 2);
        }
        ASSERT_EQ(bytes.view(), model) << "step " << step;
        ASSERT_EQ(bytes.data()[bytes.size()], '\0');
    }
    bytes.consumeFront(model.size() + 10);
    expectHolds(bytes, "");
    bytes.append("tail");
    bytes.release();
    expectHolds(bytes, "");
    EXPECT_FALSE(bytes.isNull());
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
