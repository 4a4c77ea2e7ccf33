#include "core/types/ZnString.h"

#include "support/LogCapture.h"
#include "core/types/ZnList.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr long long kMax = std::numeric_limits<long long>::max();
constexpr long long kMin = std::numeric_limits<long long>::min();

TEST(ZnString, ReadsIntegers) {
    const std::string zeros(63, '0');
    const std::string ones(63, '1');
    struct Row {
        std::string text;
        long long value;
    };
    const Row kRows[] = {{"0", 0},
                         {" \t12\r\n", 12},
                         {"-7", -7},
                         {"+7", 7},
                         {"1_000", 1000},
                         {"12abc", 12},
                         {"12 34", 12},
                         {"0x10", 16},
                         {"-0X1f", -31},
                         {"010", 8},
                         {"09", 0},
                         {"0b101", 5},
                         {"-0b1", -1},
                         {"+0B11", 3},
                         {"0b" + ones, kMax},
                         {"-0b1" + zeros, kMin},
                         {"9223372036854775807", kMax},
                         {"-9223372036854775808", kMin}};
    for (const Row& row : kRows) {
        bool ok = false;
        EXPECT_EQ(ZnString(row.text).toLongLong(&ok), row.value) << row.text;
        EXPECT_TRUE(ok) << row.text;
    }
    const std::string kFailing[] = {"",
                                    "   ",
                                    "_",
                                    "+",
                                    "-",
                                    "- 5",
                                    "--5",
                                    "abc",
                                    "0b",
                                    "0b102",
                                    "0b1 1",
                                    "9223372036854775808",
                                    "0b1" + zeros,
                                    "-0b1" + zeros.substr(1) + "1",
                                    "0b1" + zeros + "0",
                                    "-0b1" + zeros + "0",
                                    "-9223372036854775809"};
    for (const std::string& text : kFailing) {
        bool ok = true;
        EXPECT_EQ(ZnString(text).toLongLong(&ok), 0) << text;
        EXPECT_FALSE(ok) << text;
    }
}

TEST(ZnString, ReadsFloatingPoint) {
    struct Row {
        const char* text;
        bool ok;
        double value;
    };
    constexpr Row kRows[] = {
        {"1_0.5", true, 10.5}, {" 2.0 ", true, 2.0},   {"-.5", true, -0.5},
        {"5.", true, 5.0},     {"+1.5", true, 1.5},    {"1.5abc", true, 1.5},
        {"1e3", true, 1000},   {"0x10", true, 16},     {"010", true, 8},
        {"0b11", true, 3},     {"12abc", true, 12},    {"0xE", true, 14},
        {"0x1.8p1", true, 3},  {"1e308", true, 1e308}, {"1e999", false, 0},
        {"-1e999", false, 0},  {"1e-999", false, 0},   {"1e-310", true, 1e-310},
        {"0.0", true, 0},      {"0e5", true, 0},       {"", false, 0},
        {".", false, 0},       {"e", false, 0},        {"--1.5", false, 0},
        {"x", false, 0},       {"_", false, 0},        {"99999999999999999999", true, 1e20}};
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.text);
        double value = -1;
        EXPECT_EQ(ZnString(row.text).toDouble(&value), row.ok);
        EXPECT_EQ(value, row.ok ? row.value : -1);
    }
    double infinity = 0;
    EXPECT_TRUE(ZnString("inf").toDouble(&infinity));
    EXPECT_TRUE(std::isinf(infinity));
    EXPECT_EQ(ZnString("0x10").toFloat(), 16.0F);
    EXPECT_EQ(ZnString("0.1").toFloat(), 0.1F);
}

TEST(ZnString, LogsFailedConversions) {
    LogCapture log;
    bool ok = true;
    EXPECT_EQ(ZnString("2147483648").toInt(&ok), 0);
    EXPECT_FALSE(ok);
    EXPECT_EQ(ZnString("-2147483649").toInt(), 0);
    EXPECT_EQ(ZnString("-2147483648").toInt(&ok), std::numeric_limits<int>::min());
    EXPECT_TRUE(ok);
    EXPECT_EQ(ZnString("2147483648").toLongLong(&ok), 2147483648);
    EXPECT_EQ(ZnString("x").toLongLong(&ok), 0);
    EXPECT_EQ(ZnString("y").toLongLong(), 0);
    EXPECT_EQ(ZnString("z").toFloat(&ok), 0.0F);
    EXPECT_FALSE(ok);
    constexpr const char* kHead = "[ERROR] [zn.core.types.znstring] ";
    EXPECT_THAT(log.take(),
                ElementsAre(std::string(kHead) + "Invalid int conversion in ZnString: 2147483648\n",
                            std::string(kHead) + "Invalid int conversion in ZnString: -2147483649\n",
                            std::string(kHead) + "Invalid long long conversion in ZnString: y\n",
                            std::string(kHead) + "Invalid float conversion in ZnString: z\n"));
}

TEST(ZnString, CutsAndTrims) {
    const ZnString text("hello");
    EXPECT_EQ(text.mid(1, 3), "ell");
    EXPECT_EQ(text.mid(1), "ello");
    EXPECT_EQ(text.mid(1, -5), "ello");
    EXPECT_EQ(text.mid(4, 100), "o");
    EXPECT_EQ(text.mid(5), "");
    EXPECT_EQ(text.mid(-1, 2), "");
    EXPECT_EQ(ZnString(" \t\n\r\v a \v\r\n\t ").trimmed(), "\v a \v");
    EXPECT_EQ(ZnString(" \t ").trimmed(), "");
    ZnString wider(" \t\v\f a b \f\v\n");
    wider.trim();
    EXPECT_EQ(wider, "a b");
    ZnString blank(" \v ");
    blank.trim();
    EXPECT_TRUE(blank.isEmpty());
}

TEST(ZnString, ReplacesAndSplits) {
    EXPECT_EQ(ZnString("aXbXX").replace("X", "YX"), "aYXbYXYX");
    EXPECT_EQ(ZnString("aaa").replace("aa", "a"), "aa");
    EXPECT_EQ(ZnString("abc").replace("", "x"), "abc");
    EXPECT_THAT(ZnString(",a,,b").split(','), ElementsAre("", "a", "", "b"));
    EXPECT_THAT(ZnString("").split(','), ElementsAre(""));
}

TEST(ZnString, JoinsNullPointersAsEmptyTexts) {
    const char* none = nullptr;
    EXPECT_EQ(ZnString(none), "");
    EXPECT_EQ(ZnString("a") + none + ZnString("b"), "ab");
    EXPECT_EQ(ZnString("a\0b", 3).size(), 3u);
}

TEST(ZnString, OrdersByUnsignedBytes) {
    EXPECT_LT(ZnString("a"), ZnString("aa"));
    EXPECT_LT(ZnString("z"), ZnString("\xC3\xA4"));
    EXPECT_LT(ZnString("a"), ZnString("a\0", 2));
    EXPECT_TRUE(ZnString("ConTent-\xC4").equalsIgnoreCase("cONtENT-\xC4"));
    EXPECT_FALSE(ZnString("\xC4").equalsIgnoreCase("\xE4"));
    EXPECT_EQ(ZnString("AbZ\xC4").toLower(), "abz\xC4");
    EXPECT_EQ(ZnString("aBz\xE4").toUpper(), "ABZ\xE4");
}

TEST(ZnString, WritesNumbersInAnyBase) {
    EXPECT_EQ(ZnString::number(0ULL, 2), "0");
    EXPECT_EQ(ZnString::number(255ULL, 16), "ff");
    EXPECT_EQ(ZnString::number(35ULL, 36), "z");
    EXPECT_EQ(ZnString::number(42ULL, 1), "42");
    EXPECT_EQ(ZnString::number(42ULL, 37), "42");
    EXPECT_EQ(ZnString::number(~0ULL, 2), std::string(64, '1').c_str());
    EXPECT_EQ(ZnString::number(kMin), "-9223372036854775808");
}

TEST(ZnString, ConvertsWideTextBothWays) {
    struct Row {
        const char* name;
        std::string bytes;
        std::wstring codePoints;
    };
    const Row kRows[] = {{"all lengths", "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", L"a\u00E4\u20AC\U0001F600"},
                         {"lone trail", "a\x80z", L"a\uFFFDz"},
                         {"cut short", "\xE2\x82", L"\uFFFD"},
                         {"broken by a letter", "\xE2\x82z", L"\uFFFDz"},
                         {"overlong", "\xC0\x80", L"\uFFFD\uFFFD"},
                         {"overlong of three", "\xE0\x80\x80", L"\uFFFD\uFFFD\uFFFD"},
                         {"surrogate", "\xED\xA0\x80", L"\uFFFD\uFFFD\uFFFD"},
                         {"above the range", "\xF4\x90\x80\x80", L"\uFFFD\uFFFD\uFFFD\uFFFD"},
                         {"largest", "\xF4\x8F\xBF\xBF", L"\U0010FFFF"}};
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        const std::wstring wide = ZnString(row.bytes).toStdWString();
        EXPECT_EQ(wide, row.codePoints);
        // What came out is well-formed, so it survives the way back and forth.
        EXPECT_EQ(ZnString::fromWCharArray(wide).toStdWString(), wide);
    }
    EXPECT_EQ(ZnString("").toStdWString(), L"");
    EXPECT_EQ(ZnString::fromWCharArray(L"\u00E4\U0001F600"), "\xC3\xA4\xF0\x9F\x98\x80");
    const wchar_t kIllFormed[] = {0xD800, 0x110000, L'a', 0};
    EXPECT_EQ(ZnString::fromWCharArray(kIllFormed), "\xEF\xBF\xBD\xEF\xBF\xBD"
                                                    "a");
    EXPECT_EQ(ZnString::fromWCharArray(static_cast<const wchar_t*>(nullptr)), "");
}

TEST(ZnString, ReadsBooleans) {
    for (const char* text : {"1", " TRUE\n", "on", "Yes"}) {
        bool value = false;
        EXPECT_TRUE(parseBool(text, value) && value) << text;
    }
    for (const char* text : {"0", "False", "OFF", " no "}) {
        bool value = true;
        EXPECT_TRUE(parseBool(text, value) && !value) << text;
    }
    for (const char* text : {"", "2", "yess", "truth", "o n"}) {
        bool value = true;
        EXPECT_FALSE(parseBool(text, value)) << text;
        EXPECT_TRUE(value);
    }
}

TEST(ZnString, ComparesSecretsByContent) {
    EXPECT_TRUE(constantTimeEquals("", ""));
    EXPECT_TRUE(constantTimeEquals("token", "token"));
    EXPECT_FALSE(constantTimeEquals("token", "tokem"));
    EXPECT_FALSE(constantTimeEquals("token", "Token"));
    EXPECT_FALSE(constantTimeEquals("token", "toke"));
}

} // namespace
