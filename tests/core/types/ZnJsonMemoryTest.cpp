#include "core/types/ZnJsonDocument.h"

#include <gtest/gtest.h>

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <string>

// What the heap really gives out: rounded up, and with its own word in front.
namespace {

std::size_t liveBytes = 0;
std::size_t peakBytes = 0;

std::size_t heapBytes(void* block) {
    return block == nullptr ? 0 : ::malloc_usable_size(block) + sizeof(std::size_t);
}

} // namespace

void* operator new(std::size_t byteCount) {
    void* const block = std::malloc(byteCount);
    if (block == nullptr)
        throw std::bad_alloc();
    liveBytes += heapBytes(block);
    peakBytes = std::max(peakBytes, liveBytes);
    return block;
}

void operator delete(void* block) noexcept {
    liveBytes -= heapBytes(block);
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    operator delete(block);
}

namespace {

constexpr std::size_t kTextBytes = 2u << 20;

std::string repeated(std::string_view text, int count) {
    std::string result;
    while (count-- > 0)
        result += text;
    return result;
}

TEST(ZnJsonMemory, ParsingNeedsAtMostTwelveTimesTheText) {
    struct Row {
        std::string open, unit, close;
        JsonReading reading = JsonReading::Dialect;
    };
    const Row kRows[] = {{"[", "1,", "]"},
                         {"[", "1,", ""},
                         {"[x,", "1,", "]"},
                         {"[", "[],", "]"},
                         {"[", "{},", "]"},
                         {"[", "[0],", "]"},
                         {"[", repeated("[", 255) + repeated("]", 255) + ",", "]"},
                         {"[", "[[[]]],", "]"},
                         {"[", repeated("{\"\":", 255) + "0" + repeated("}", 255) + ",", "]"},
                         {"[", "{\"\":0},", "]"},
                         {"{", "\"\":0,", "}"},
                         {"{", "\"b\":0,\"a\":0,", "}"},
                         {"{", "\"a\":{},", "}"},
                         {"[", "{\"\":0,\"\":0,\"\":0},", "]"},
                         {"[", "\"\",", "]"},
                         {"[", "\"123456789012345\",", "]"},
                         {"[", "-0,", "]", JsonReading::Exact},
                         {"[", "1e1,", "]", JsonReading::Exact},
                         {"[\"", "\\n", "\"]"},
                         {"[\"", "[[[[", "\"]"},
                         {"", "[", ""}};
    for (const Row& row : kRows) {
        std::string text = row.open;
        while (text.size() < kTextBytes)
            text += row.unit;
        text += row.close;
        const std::size_t before = peakBytes = liveBytes;
        {
            ZnString error;
            ZnJsonDocument::fromJson(text, &error, row.reading);
        }
        EXPECT_LE(peakBytes - before, 12 * text.size()) << row.open << row.unit.substr(0, 20);
        EXPECT_EQ(liveBytes, before) << row.unit.substr(0, 20);
    }
}

// Sorting a million names that come in the wrong order must take neither quadratic time nor much memory.
TEST(ZnJsonMemory, SortsNamesOnceAndInPlace) {
    constexpr int kNames = 1000000;
    std::string text = "{";
    for (int name = 2 * kNames; name > kNames; --name)
        text += "\"" + std::to_string(name) + "\":" + std::to_string(name % 7) + ",";
    text += "\"" + std::to_string(kNames + 1) + "\":8}"; // again
    const std::size_t before = peakBytes = liveBytes;
    const ZnJsonDocument document = ZnJsonDocument::fromJson(text, nullptr);
    EXPECT_LE(peakBytes - before, 12 * text.size());
    const ZnJsonObject* const object = document.root().object();
    ASSERT_EQ(object->size(), static_cast<std::size_t>(kNames));
    int expected = kNames;
    for (const auto& [name, value] : *object) {
        ASSERT_EQ(name, std::to_string(++expected));
        ASSERT_EQ(value.toInt(-1), expected == kNames + 1 ? 8 : expected % 7);
    }
}

// Parts of a tree share memory: it must last until the last of them goes, and no longer.
TEST(ZnJsonMemory, PartsOutliveTheirTree) {
    const std::size_t before = liveBytes;
    {
        std::string text = "[";
        for (int index = 0; index < 5000; ++index)
            text += R"({"a text of some length":["another such text"]},)";
        ZnJsonDocument document = ZnJsonDocument::fromJson(text + "0]", nullptr);
        ZnJsonValue part = std::move(document.root().array()->at(4321));
        document = ZnJsonDocument();
        EXPECT_EQ(part.toJson(), R"({"a text of some length": ["another such text"]})");
        EXPECT_LE(liveBytes - before, text.capacity() + 200000);
    }
    EXPECT_EQ(liveBytes, before);
}

} // namespace
