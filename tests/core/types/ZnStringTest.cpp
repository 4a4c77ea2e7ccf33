#include "core/types/ZnString.h"
#include "core/types/ZnCrypto.h"

#include "core/types/ZnList.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

using testing::ElementsAre;

constexpr long long kMax = std::numeric_limits<long long>::max();
constexpr long long kMin = std::numeric_limits<long long>::min();

TEST(ZnString, ReadsIntegers) {
    const std::string zeros(63, '0');
    const std::string ones(63, '1');
    const std::pair<std::string, long long> kRows[] = {{"0", 0},
                                                       {" \t12\r\n", 12},
                                                       {"+7", 7},
                                                       {"1_000", 1000},
                                                       {"-0X1f", -31},
                                                       {"010", 8},
                                                       {"09", 0},
                                                       {"0b101", 5},
                                                       {"0b" + ones, kMax},
                                                       {"-0b1" + zeros, kMin},
                                                       {"9223372036854775807", kMax},
                                                       {"-9223372036854775808", kMin}};
    for (const auto& [text, value] : kRows) {
        bool ok = false;
        EXPECT_EQ(ZnString(text).toLongLong(&ok), value) << text;
        EXPECT_TRUE(ok) << text;
    }
    const std::string kFailing[] = {"",
                                    "_",
                                    "- 5",
                                    "abc",
                                    "0b102",
                                    "9223372036854775808",
                                    "-9223372036854775809",
                                    "0b1" + zeros,
                                    "-0b1" + zeros + "0"};
    for (const std::string& text : kFailing) {
        bool ok = true;
        EXPECT_TRUE(ZnString(text).toLongLong(&ok) == 0 && !ok) << text;
    }
}

TEST(ZnString, ReadsFloatingPoint) {
    constexpr double kNone = -1; // what was there before
    constexpr std::pair<const char*, double> kRows[] = {
        {"1_0.5", 10.5},   {" 2.0 ", 2.0},      {"-.5", -0.5},   {"1.5abc", 1.5},
        {"0x10", 16},      {"12abc", 12},       {"0x1.8p1", 3},  {"1e999", kNone},
        {"1e-999", kNone}, {"1e-310x", 1e-310}, {"0e5", 0},      {"99999999999999999999", 1e20},
        {"", kNone},       {".", kNone},        {"--1.5", kNone}};
    for (const auto& [text, expected] : kRows) {
        double value = kNone;
        EXPECT_EQ(ZnString(text).toDouble(&value), expected != kNone) << text;
        EXPECT_EQ(value, expected) << text;
    }
}

TEST(ZnString, IntsHaveTheirOwnRange) {
    bool ok = true;
    EXPECT_EQ(ZnString("-2147483648").toInt(&ok), std::numeric_limits<int>::min());
    EXPECT_TRUE(ok);
    EXPECT_EQ(ZnString("2147483648").toInt(&ok), 0);
    EXPECT_FALSE(ok);
}

TEST(ZnString, CutsTrimsReplacesSplitsAndWritesNumbers) {
    const ZnString text("hello");
    EXPECT_EQ(text.mid(1, 3), "ell");
    EXPECT_EQ(text.mid(1, -5), "ello");
    EXPECT_EQ(text.mid(4, 100), "o");
    EXPECT_EQ(text.mid(5) + text.mid(-1, 2), "");
    EXPECT_EQ(ZnString(" \t\n\r\v a \v\r\n\t ").trimmed(), "\v a \v");
    ZnString wider(" \t\v\f a b \f\v\n");
    wider.trim();
    EXPECT_EQ(wider, "a b");
    EXPECT_EQ(ZnString("aXbXX").replace("X", "YX"), "aYXbYXYX");
    EXPECT_EQ(ZnString("abc").replace("", "x"), "abc");
    EXPECT_THAT(ZnString(",a,,").split(','), ElementsAre("", "a", "", ""));
    const char* none = nullptr;
    EXPECT_EQ(ZnString(none) + none + ZnString("b"), "b");
    EXPECT_EQ(ZnString::number(35ULL, 36) + ZnString::number(42ULL, 37), "z42");
    EXPECT_EQ(ZnString::number(~0ULL, 2).str(), std::string(64, '1'));
    EXPECT_EQ(ZnString::number(kMin, 2).str(), "-1" + std::string(63, '0'));
    EXPECT_EQ(ZnString::number(std::int16_t{-255}, 16) + ZnString::number(7UL) + ZnString::number(-8L), "-ff7-8");
}

TEST(ZnString, OrdersAndFoldsByUnsignedBytes) {
    EXPECT_LT(ZnString("z"), ZnString("\xC3\xA4"));
    EXPECT_LT(ZnString("a"), ZnString("a\0", 2));
    EXPECT_TRUE(ZnString("ConTent-\xC4").equalsIgnoreCase("cONtENT-\xC4"));
    EXPECT_FALSE(ZnString("\xC4").equalsIgnoreCase("\xE4"));
    EXPECT_EQ(ZnString("AbZ\xC4").toLower(), "abz\xC4");
    EXPECT_EQ(ZnString("aBz\xE4").toUpper(), "ABZ\xE4");
}

TEST(ZnString, WideTextHasAReplacementForIllFormedBytes) {
    // A lone trail byte, two cut short, overlong ones, a surrogate and a value above the range.
    const ZnString bytes("a\xC3\xA4\xF4\x8F\xBF\xBF\x80z\xE2\x82z\xC0\x80\xE0\x80\xED\xA0\xF4\x90\xE2\x82");
    const std::wstring wide = L"a\u00E4\U0010FFFF\uFFFDz\uFFFDz" + std::wstring(9, L'\uFFFD');
    EXPECT_EQ(bytes.toStdWString(), wide);
    EXPECT_EQ(ZnString::fromWCharArray(wide).toStdWString(), wide);
    EXPECT_EQ(ZnString::fromWCharArray(std::wstring{wchar_t(0xD800), wchar_t(0x110000)}), "\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(ZnString, ComparesSecretsByContent) {
    EXPECT_TRUE(constantTimeEquals("token", "token"));
    for (const char* other : {"tokem", "Token", "toke", "tokens", ""})
        EXPECT_FALSE(constantTimeEquals("token", other)) << other;
}

} // namespace
