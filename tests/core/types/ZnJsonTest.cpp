#include "core/types/ZnJsonDocument.h"
#include "core/types/ZnMap.h"

#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace {

/// `text` at the end of the readable memory, so that reading past it faults. Holds until the next call.
std::string_view guarded(std::string_view text) {
    static char* const end = [] {
        const auto pageBytes = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
        void* pages = ::mmap(nullptr, 2 * pageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(pages, MAP_FAILED);
        char* const guard = static_cast<char*>(pages) + pageBytes;
        EXPECT_EQ(::mprotect(guard, pageBytes, PROT_NONE), 0);
        return guard;
    }();
    std::memcpy(end - text.size(), text.data(), text.size());
    return {end - text.size(), text.size()};
}

ZnJsonValue parsed(std::string_view text) {
    ZnString error;
    ZnJsonDocument document = ZnJsonDocument::fromJson(text, &error);
    EXPECT_EQ(error, "") << text;
    return std::move(document.root());
}

TEST(ZnJson, FailuresNameReasonAndPlace) {
    struct Row {
        const char* text;
        int index;
        const char* reason;
    };
    constexpr Row kRows[] = {{"", 0, "Unexpected end of JSON input"},
                             {"[,]", 1, "Invalid JSON token"},
                             {"[true,trux]", 10, "Invalid boolean literal"},
                             {"nul", 3, "Invalid literal, expected 'null'"},
                             {R"({"a":1)", 6, "Unterminated JSON object"},
                             {"[1", 2, "Unterminated JSON array"},
                             {R"({"a":1,,})", 7, "Expected string key in object"},
                             {R"({"a" 1})", 5, "Expected ':' after object key"},
                             {R"({"a":1 "b"})", 7, "Expected ',' or '}' in object"},
                             {"[1}", 2, "Expected ',' or ']' in array"},
                             {R"({"ab)", 4, "Unterminated string literal"},
                             {"\"a\nb\"", 2, "Unescaped control character in string"},
                             {R"("ab\)", 4, "Invalid escape sequence in string"},
                             {R"("\x")", 2, "Invalid escape character in string"},
                             {R"("\u12")", 3, "Incomplete Unicode escape sequence"},
                             {R"("\u12g4")", 5, "Invalid hex digit in Unicode escape"},
                             {R"("\ud83d\n")", 7, "Missing low surrogate after high surrogate"},
                             {R"("\ud83d\u0041")", 13, "Invalid low surrogate in Unicode escape"},
                             {R"("\ude00")", 7, "Unexpected low surrogate without leading high surrogate"},
                             {"-a", 1, "Expected digit in number literal"},
                             {"-00", 2, "Leading zeros are not allowed in JSON numbers"},
                             {"1.e5", 2, "Expected digit after decimal point"},
                             {"1e+", 3, "Expected digit in exponent"},
                             {"[9223372036854775808]", 1, "Invalid integer number"},
                             {"[1e400]", 1, "Invalid floating-point number"}};
    for (const Row& row : kRows) {
        ZnString error("stale");
        EXPECT_TRUE(ZnJsonDocument::fromJson(row.text, &error).root().isNull());
        const std::string place = " (index " + std::to_string(row.index) + ") near \"" + row.text + "\"";
        EXPECT_EQ(error.str(), row.reason + place);
    }
}

TEST(ZnJson, TextBehindTheValueLeavesItInPlace) {
    ZnString error;
    EXPECT_EQ(ZnJsonDocument::fromJson("[1] x", &error).toJson(), "[1]");
    EXPECT_EQ(error, "Unexpected characters at the end of JSON.");
}

TEST(ZnJson, ReadsAndRewrites) {
    const std::pair<std::string, std::string> kRows[] = {
        {" [\t1\v,\f2\r\n,] ", "[1,2]"},
        {R"({"b":1,"a":2,"ab":[],"":{},})", R"({"": {},"a": 2,"ab": [],"b": 1})"},
        {"\xEF\xBB\xBF[[],[[]],{\"a\":[{}]}]", "[[],[[]],{\"a\": [{}]}]"},
        {"[true,false,null]", "[true,false,null]"},
        {"[0,-0,-9223372036854775808,9223372036854775807]", "[0,0,-9223372036854775808,9223372036854775807]"},
        {"[1.0,-0.0,2.50,1E2,1e-7,3.14159265]", "[1,0,2.5,100,1e-07,3.14159]"},
        {"[9007199254740993.0,-9.223372036854775808e18]", "[9007199254740992,-9223372036854775808]"},
        {"[1e300,9.223372036854775808e18]", "[1e+300,9.223372036854776e+18]"},
        {R"("\"\\\/\b\f\n\r\t\u0041\u00e4\u20ac\ud83d\ude00")", "\"\\\"\\\\/\\b\\f\\n\\r\\tA\u00E4\u20AC\U0001F600\""},
        {R"({"a\u0000\u001f\u007Fb":""})", "{\"a\\u0000\\u001F\x7F"
                                           "b\": \"\"}"},
        {"\"\x7F\xFF\xC3\"", "\"\x7F\xFF\xC3\""}};
    for (const auto& [text, written] : kRows)
        EXPECT_EQ(parsed(text).toJson().str(), written);
}

TEST(ZnJson, ExactReadingKeepsDigitsAndTexts) {
    struct Row {
        const char* text;
        double value;
        int asInt;
        const char* inDialect = "fails";
    }; // value -1: a text
    const double infinity = std::numeric_limits<double>::infinity();
    const Row kRows[] = {{R"("2.0")", -1, -1, "2"},
                         {R"("null")", -1, -1, "null"},
                         {R"("010")", -1, -1, "8"},
                         {"-9223372036854775808", -9223372036854775808.0, 0, "-9223372036854775808"},
                         {"9223372036854775808", 9223372036854775808.0, 2147483647},
                         {"-0", 0, 0, "0"},
                         {"1.10", 1.1, 1, "1.1"},
                         {"1E+2", 100, 100, "100"},
                         {"-1e999", -infinity, -2147483647 - 1},
                         {"0.001e+999", infinity, 2147483647},
                         {"1e-99999999999999999999", 0, 0}};
    ZnString error;
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.text);
        const ZnJsonValue value = ZnJsonDocument::fromJson(row.text, &error, JsonReading::Exact).root();
        EXPECT_EQ(error, "");
        EXPECT_EQ(ZnJsonValue(value).toJson(), row.text);
        EXPECT_EQ(value.toStringOr("x"), value.isString() ? ZnString(value.string()) : ZnString(row.text));
        EXPECT_EQ(value.string().empty(), row.value != -1);
        EXPECT_EQ(value.toDouble(-1), row.value);
        EXPECT_EQ(value.toInt(-1), row.asInt);
        const ZnString written = ZnJsonDocument::fromJson(row.text, &error).toJson();
        EXPECT_EQ(error.isEmpty() ? written : ZnString("fails"), row.inDialect);
        const std::string longer = std::string(row.text) + "0";
        EXPECT_EQ(value == ZnJsonDocument::fromJson(longer, &error, JsonReading::Exact).root(), value.isString());
    }
    for (const char* text : {"01", "+1", "1.", ".5", "1e", "-", "0x1", "NaN", "1.5.2"}) {
        ZnJsonDocument::fromJson(text, &error, JsonReading::Exact);
        EXPECT_NE(error, "") << text;
    }
}

TEST(ZnJson, RepeatedKeyLeavesNothingOfTheEarlierValue) {
    const ZnJsonValue object = parsed(R"({"a":[1],"b":"text","a":null,"b":{}})");
    EXPECT_EQ(object.toJson(), R"({"a": null,"b": {}})");
    EXPECT_EQ(object.object()->value("a").array(), nullptr);
    EXPECT_EQ(object.object()->value("b").string(), "");
}

TEST(ZnJson, ScalarTextsReadAsScalars) {
    using enum JsonType;
    struct Row {
        const char* text;
        JsonType type;
        const char* written;
    };
    constexpr Row kRows[] = {{"true", Boolean, "true"},
                             {"false", Boolean, "false"},
                             {"null", Null, "null"},
                             {"-12", Integer, "-12"},
                             {"-0", Integer, "0"},
                             {"010", Integer, "8"},
                             {"09", Integer, "0"},
                             {"999999999999999999", Integer, "999999999999999999"},
                             {"9223372036854775807", Integer, "9223372036854775807"},
                             {"2.0", Double, "2"},
                             {"-.5", Double, "-0.5"},
                             {"5.", Double, "5"},
                             {"0.1", Double, "0.1"}};
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.text);
        const std::string literal = "\"" + std::string(row.text) + "\"";
        const ZnJsonValue plain = parsed(literal);
        EXPECT_EQ(plain.type(), row.type);
        EXPECT_EQ(plain.toJson(), row.written);
        // As a member, and as a key, which stays a text.
        EXPECT_EQ(parsed("{" + literal + ":" + literal + "}").object()->value(row.text), plain);
    }
    for (const char* text : {"", "-", ".", "-.", "--1", "1.2.3", "1e5", "+1", " 1", "True", "nulll", "2025-06-18"})
        EXPECT_EQ(parsed("\"" + std::string(text) + "\""), ZnJsonValue(text));
    EXPECT_EQ(parsed(R"("\u0031")").type(), Integer); // examined after the escapes
    EXPECT_EQ(parsed("\"0.1\"").toDouble(0), 0.10000000149011612);
    LogCapture log;
    EXPECT_EQ(parsed("\"99999999999999999999\""), ZnJsonValue(0));
    EXPECT_EQ(log.countOf("[ERROR] [zn.core.types.znstring] Invalid long long conversion in ZnString: 9999999999"), 1);
}

TEST(ZnJson, LogsFewOfTheNumbersThatDoNotFit) {
    const std::string digits(1000, '9');
    std::string text = "[";
    for (int number = 0; number < 10; ++number)
        text += "\"" + digits + "\",\"" + digits + ".0\",";
    LogCapture log;
    const ZnJsonValue numbers = parsed(text + "]");
    EXPECT_EQ(numbers.array()->size(), 20u);
    EXPECT_TRUE(numbers.array()->at(18) == ZnJsonValue(0) && numbers.array()->at(19) == ZnJsonValue(0.0));
    const std::string kHead = "[ERROR] [zn.core.types.znstring] Invalid ";
    const std::string cut = std::string(100, '9') + "... (1000 bytes)\n";
    const std::string whole = kHead + "long long conversion in ZnString: " + cut;
    EXPECT_EQ(log.take(),
              (std::vector<std::string>{
                  whole, kHead + "float conversion in ZnString: " + std::string(100, '9') + "... (1002 bytes)\n", whole,
                  "[ERROR] [zn.core.types.znjsondocument] Invalid number conversions in one JSON "
                  "text: 20\n"}));
}

TEST(ZnJson, LimitsTheNumberOfValues) {
    struct Row {
        const char* text;
        std::size_t count;
    };
    constexpr Row kRows[] = {{"1", 1}, {"[]", 1}, {"[1,[2],\"3\"]", 5}, {R"({"a":{"b":1},"a":2})", 4}};
    for (const Row& row : kRows) {
        ZnString error;
        ZnJsonDocument::fromJson(row.text, &error, JsonReading::Exact, row.count);
        EXPECT_EQ(error, "");
        EXPECT_TRUE(ZnJsonDocument::fromJson(row.text, &error, JsonReading::Exact, row.count - 1).root().isNull());
        EXPECT_TRUE(error.startsWith("JSON has too many values (index ")) << error;
    }
}

TEST(ZnJson, ContainersKeepOrderThroughChanges) {
    std::mt19937 random(5);
    ZnMap<ZnString, int> expected;
    ZnJsonValue value = parsed(R"({"50":50,"a longer name than fits":1})"); // of one size, and then growing
    expected.insert("50", 50);
    expected.insert("a longer name than fits", 1);
    for (int round = 0; round < 2000; ++round) {
        const ZnString name = ZnString::number(random() % 300) + (round % 2 == 0 ? "" : " with a long tail");
        if (random() % 3 == 0) {
            EXPECT_EQ(value.object()->remove(name.view()), expected.remove(name));
        } else {
            (*value.object())[name] = round;
            expected[name] = round;
        }
    }
    auto at = expected.begin();
    for (const auto& [name, member] : *value.object()) {
        ASSERT_TRUE(at != expected.end() && at->first.view() == name && member.toInt(-1) == at->second);
        ++at;
    }
    EXPECT_TRUE(at == expected.end());
    ZnJsonArray array = value.toArray();
    for (int index = 0; index < 100; ++index)
        array.append(index);
    const ZnJsonArray moved = std::move(array);
    EXPECT_TRUE(array.isEmpty() && moved.size() == 100 && moved.at(99) == ZnJsonValue(99));
    EXPECT_THROW(moved.at(100), std::out_of_range);
}

TEST(ZnJson, AppendsToATextThatIsThere) {
    const ZnJsonValue payload = parsed(R"({"a":"x\"y\n"})");
    ZnString text("raw: ");
    payload.appendJson(&text);
    text += ", escaped: ";
    appendEscapedJson(&text, text.view().substr(5, 15)); // a part of itself
    appendEscapedJson(&text, "\x01");
    EXPECT_EQ(text, R"(raw: {"a": "x\"y\n"}, escaped: {\"a\": \"x\\\"y\\n\"}\u0001)");
}

TEST(ZnJson, EveryTruncationFailsWithoutReadingPastTheEnd) {
    const std::string text = R"([{"key one":"a longer text \u00e4\ud83d\ude00\n with escapes","b":[true,false,null]},)"
                             R"(-12.5e+3,"2.0",[],{},[[0]]])";
    for (std::size_t length = 0; length < text.size(); ++length) {
        const std::string_view cut = guarded(std::string_view(text).substr(0, length));
        ZnString error;
        ZnJsonDocument::fromJson(cut, &error);
        EXPECT_FALSE(error.isEmpty()) << cut;
    }
    EXPECT_EQ(parsed(guarded(text)).array()->size(), 6u);
}

// Every special byte at every place of the words that the scan looks at.
TEST(ZnJson, FindsSpecialBytesAtEveryOffset) {
    for (std::size_t length = 0; length < 40; ++length) {
        for (std::size_t at = 0; at <= length; ++at) {
            for (const char special : {'"', '\\', '\n', '\x1F', '\0'}) {
                std::string content(length, '\xFF');
                content.insert(at, 1, special);
                const ZnString written = ZnJsonValue(ZnString(content)).toJson();
                EXPECT_EQ(parsed("[" + written.str() + "]").array()->at(0).string(), content);
                ZnString error;
                ZnJsonDocument::fromJson("\"" + content + "\"", &error);
                EXPECT_FALSE(error.isEmpty());
            }
        }
    }
}

TEST(ZnJson, IndentsByDepth) {
    EXPECT_EQ(parsed(R"({"a":[1,{"b":[]}],"c":{}})").toJson(JsonFormat::Indented),
              "{\n  \"a\": [\n    1,\n    {\n      \"b\": []\n    }\n  ],\n  \"c\": {}\n}");
}

TEST(ZnJson, NumbersHaveTheCForms) {
    std::mt19937_64 random(11);
    for (int round = 0; round < 20000; ++round) {
        double value = std::bit_cast<double>(random());
        if (round % 2 == 0)
            value = std::ldexp(std::fmod(value, 1.0), static_cast<int>(random() % 80) - 40);
        if (!std::isfinite(value))
            continue;
        char text[400];
        std::snprintf(text, sizeof(text), "%f", value);
        ASSERT_EQ(ZnJsonValue(value).toStringOr(""), text);
        std::snprintf(text, sizeof(text), "%g", value);
        if (double whole = 0; std::modf(value, &whole) != 0) {
            ASSERT_EQ(ZnJsonValue(value).toJson(), text);
        }
    }
    for (const double infinity : {HUGE_VAL, -HUGE_VAL})
        EXPECT_EQ(ZnJsonValue(infinity).toJson(), "null");
    EXPECT_EQ(ZnJsonValue(std::nan("")).toJson(), "null");
}

TEST(ZnJson, ConvertsBetweenTypes) {
    using Ints = std::numeric_limits<int>;
    struct Row {
        ZnJsonValue value;
        ZnString text;
        ZnString display;
        int asInt;
        long long asLong;
        double asDouble;
    };
    const Row kRows[] = {{ZnJsonValue(), "null", "null", -7, 0, -7},
                         {ZnJsonValue(true), "true", "true", 1, 1, 1},
                         {ZnJsonValue(0x1FFFFFFFFLL), "8589934591", "8589934591", -1, 0x1FFFFFFFFLL, 8589934591.0},
                         {ZnJsonValue(-2.75), "-2.750000", "-2.75", -2, -2, -2.75},
                         {ZnJsonValue(1e10), "10000000000.000000", "1e+10", Ints::max(), 10000000000, 1e10},
                         {ZnJsonValue(-1e30), "-1000000000000000019884624838656.000000", "-1e+30", Ints::min(),
                          std::numeric_limits<long long>::min(), -1e30},
                         {ZnJsonValue("a\"\n\x01\x1F/"), "a\"\n\x01\x1F/", R"("a\"\n\u0001\u001f/")", -7, 0, -7},
                         {ZnJsonValue(ZnJsonObject{{"a", 1}}), "fallback", "ZnJsonValue(Object)", -7, 0, -7}};
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.display);
        EXPECT_EQ(row.value.toStringOr("fallback"), row.text);
        EXPECT_EQ(row.value.toDisplayString(), row.display);
        EXPECT_TRUE(row.value.toBool(true));
        EXPECT_EQ(row.value.toInt(-7), row.asInt);
        EXPECT_EQ(row.value.toLongLong(), row.asLong);
        EXPECT_EQ(row.value.toDouble(-7), row.asDouble);
        EXPECT_EQ(row.value.toObject().size(), row.value.isObject() ? 1u : 0u);
    }
    EXPECT_FALSE(ZnJsonValue(0).toBool(true) || ZnJsonValue(0.0).toBool(true) || ZnJsonValue(false).toBool(true));
    EXPECT_EQ(ZnJsonValue(-0.125).toDouble(0, 2), -0.13);
    EXPECT_EQ(ZnJsonValue(1e300).toDouble(0, 300), 1e300);
    EXPECT_EQ(ZnJsonValue(std::nan("")).toLongLong(), 0);
}

TEST(ZnJson, ValuesNeverShareATree) {
    const ZnJsonValue original = parsed(R"({"a":[1,{"b":"x"}],"c":2.5})");
    ZnJsonValue copy = original;
    copy.object()->operator[]("a").array()->at(1) = ZnJsonValue("changed");
    EXPECT_EQ(original.toJson(), R"({"a": [1,{"b": "x"}],"c": 2.5})");
    EXPECT_EQ(copy.toJson(), R"({"a": [1,"changed"],"c": 2.5})");
    EXPECT_NE(copy, original);
    // A part of a tree may take the place of the whole.
    ZnJsonValue tree = original;
    tree = std::move(tree.object()->operator[]("a").array()->at(1));
    EXPECT_EQ(tree.toJson(), R"({"b": "x"})");
    tree = tree.object()->value("b");
    const ZnJsonValue moved = std::move(tree);
    EXPECT_TRUE(tree.isNull() && tree.string().empty());
    EXPECT_EQ(moved, ZnJsonValue("x"));
}

TEST(ZnJson, KeysEncipherScalars) {
    const ZnString key("a key");
    const ZnJsonValue tree = parsed(R"({"flag":true,"d":2.5,"whole":3.0,"t":"plain text","e":"","nothing":null,)"
                                    R"("list":["x",[],-12]})");
    const ZnString written = tree.toJson(JsonFormat::Compact, key);
    for (const char* hidden : {"true", "-12", "2.5", "plain text", "\"\"", "\"x\""})
        EXPECT_FALSE(written.contains(hidden)) << written;
    for (const char* shown : {"\"flag\": ", "\"nothing\": null", "[]"})
        EXPECT_TRUE(written.contains(shown)) << written;
    // Bare scalars that are not enciphered are read as they stand; a plain text is an error.
    struct Row {
        std::string_view text;
        ZnString rewritten;
        const char* error = "";
    };
    const Row kRows[] = {{written.view(), tree.toJson()},
                         {"[true,null,12,-2.5]", "[true,null,12,-2.5]"},
                         {R"(["plain"])", "null", R"(Unable to decrypt string value (index 8) near "["plain"]")"},
                         {"[*]", "null", R"(Expected digit in number literal (index 1) near "[*]")"}};
    ZnString error;
    for (const Row& row : kRows) {
        EXPECT_EQ(ZnJsonDocument::fromJson(row.text, &error, key).toJson(), row.rewritten);
        EXPECT_EQ(error, row.error);
    }
    EXPECT_FALSE(ZnJsonDocument::fromJson(written.view(), &error, "another key").toJson().contains("plain text"));
}

} // namespace
