#include "core/storage/StoreTestSupport.h"

using namespace znEmbeddedDbDetail;

namespace {

/// Bytes of a text such as "00 04000000 'red'".
std::string bytesOf(const std::string& text) {
    std::string bytes;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == ' ')
            continue;
        if (text[at] == '\'') {
            for (++at; text[at] != '\''; ++at)
                bytes += text[at];
            continue;
        }
        bytes += static_cast<char>(std::stoi(text.substr(at++, 2), nullptr, 16));
    }
    return bytes;
}

TEST(StoredValue_, IsWrittenAndReadByteForByte) {
    const ValueEntry_ red = inlineEntry("red");
    ValueEntry_ tagged = red;
    tagged.indexKeys["tag"].append(ZnByteArray(std::string_view("a")));
    tagged.indexKeys["tag"].append(ZnByteArray(std::string_view()));
    tagged.indexKeys["color"];
    ValueEntry_ outside;
    outside.blob = {true, 3, 0x0102030405060708, 28, 0x7E95C0A3, 0};
    const struct {
        const ValueEntry_& entry;
        std::string bytes;
    } rows[] = {
        {red, bytesOf("00 04000000 00000000 03000000 'red'")},
        {tagged, bytesOf("00 25000000 02000000 05000000 'color' 00000000 03000000 'tag' 02000000 01000000 'a' 00000000"
                         "03000000 'red'")},
        {outside, bytesOf("01 04000000 00000000 0300000000000000 0807060504030201 1C000000 A3C0957E 00000000")},
    };
    for (const auto& [entry, bytes] : rows) {
        SCOPED_TRACE(bytes);
        EXPECT_EQ(encoded(entry), bytes);
        ValueEntry_ decoded;
        decoded.sequence = 5;
        ASSERT_TRUE(decodeStoredValue(bytes.data(), bytes.size(), &decoded));
        EXPECT_EQ(decoded.inlineValue, entry.inlineValue);
        EXPECT_EQ(decoded.value, entry.value);
        EXPECT_EQ(decoded.blob, entry.blob);
        EXPECT_EQ(decoded.indexKeys, entry.indexKeys);
        EXPECT_EQ(decoded.sequence, 5u);
        for (std::size_t size = 0; size < bytes.size(); ++size)
            EXPECT_FALSE(decodeStoredValue(bytes.data(), size, &decoded)) << size;
        EXPECT_FALSE(decodeStoredValue((bytes + "x").data(), bytes.size() + 1, &decoded));
    }
}

TEST(StoredValue_, RefusesWhatNoWriterWrites) {
    const char* rows[] = {
        "02 04000000 00000000 00000000",                       // storage
        "00 05000000 00000000 00 00000000",                    // more in the metadata than it tells
        "00 04000000 FFFFFFFF 00000000",                       // count of indexes
        "00 0D000000 01000000 01000000 'a' FFFFFFFF 00000000", // count of keys
        "00 16000000 02000000 01000000 'b' 00000000 01000000 'a' 00000000 00000000", // names out of order
        "00 16000000 02000000 01000000 'a' 00000000 01000000 'a' 00000000 00000000", // a name twice
        "00 FFFFFFFF 00000000 00000000",                                             // length of the metadata
    };
    for (const char* row : rows) {
        const std::string bytes = bytesOf(row);
        ValueEntry_ entry;
        entry.value = ZnByteArray(std::string_view("before"));
        EXPECT_FALSE(decodeStoredValue(bytes.data(), bytes.size(), &entry)) << row;
        EXPECT_EQ(entry.value.view(), "before") << row;
    }
}

} // namespace
