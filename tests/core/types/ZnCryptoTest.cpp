#include "core/types/ZnCrypto.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using Bytes = ZnCrypto::Bytes;

std::string hexOf(const Bytes& bytes) {
    std::string hex;
    for (unsigned char byte : bytes)
        hex.append({"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]});
    return hex;
}

/// 0, 1, 2, ... each times `factor`.
Bytes counting(std::size_t count, unsigned factor = 1) {
    Bytes bytes(count);
    for (std::size_t index = 0; index < count; ++index)
        bytes[index] = static_cast<unsigned char>(index * factor);
    return bytes;
}

TEST(ZnCrypto, KnownDigests) {
    const std::pair<HashAlgorithm, const char*> kRows[] = {
        {HashAlgorithm::Md5, "900150983cd24fb0d6963f7d28e17f72"},
        {HashAlgorithm::Sha1, "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {HashAlgorithm::Sha256, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {HashAlgorithm::Sha512, "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
                                "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
    };
    for (const auto& [algorithm, digest] : kRows)
        EXPECT_EQ(hexOf(ZnCrypto::hash("abc", algorithm)), digest);
}

// The example vectors of the cipher's standard, one per key length.
TEST(ZnCrypto, KnownAesBlocks) {
    constexpr std::pair<std::size_t, const char*> kRows[] = {{16, "69c4e0d86a7b0430d8cdb78070b4c55a"},
                                                             {24, "dda97ca4864cdfe06eaf70a0ec0d7191"},
                                                             {32, "8ea2b7ca516745bfeafc49904b496089"}};
    const Bytes plain = counting(16, 0x11);
    for (const auto& [keyBytes, expected] : kRows) {
        const Bytes cipher = ZnCrypto::aesEcb(plain, counting(keyBytes), true);
        ASSERT_EQ(cipher.size(), 32u); // a whole block of padding
        EXPECT_EQ(hexOf(cipher).substr(0, 32), expected);
    }
    EXPECT_THROW(ZnCrypto::aesEcb(plain, counting(17), true), std::invalid_argument);
}

TEST(ZnCrypto, TextsSurviveEveryLengthAndKey) {
    for (const char* key : {"", "exactly thirty-two bytes of key!", "longer than thirty-two bytes of key!!"}) {
        for (std::size_t length = 0; length <= 33; ++length) {
            const ZnString plain(std::string(length, '\x01'));
            EXPECT_EQ(ZnString(plain.encryptAES(key)).decryptAES(key), plain);
            EXPECT_NE(ZnString(plain.encryptAES(key)).decryptAES("another key"), plain);
        }
    }
    EXPECT_EQ(ZnCrypto::normalizeAesKey(counting(32)), counting(32));
    EXPECT_EQ(ZnCrypto::normalizeAesKey({'a', 'b', 'c'}), ZnCrypto::hash("abc", HashAlgorithm::Sha256));
}

TEST(ZnCrypto, KeepsDataWithoutWellFormedPadding) {
    const ZnString key("exactly thirty-two bytes of key!");
    for (char last : {'\0', '\3', '\x11'}) {
        const std::string block = std::string(15, 'x') + last;
        const Bytes padded = ZnCrypto::aesEcb(Bytes(block.begin(), block.end()), Bytes(key.begin(), key.end()), true);
        const ZnString firstBlock = ZnCrypto::base64Encode(Bytes(padded.begin(), padded.begin() + 16));
        EXPECT_EQ(ZnCrypto::decryptAES(key, firstBlock), ZnString(block));
    }
}

TEST(ZnCrypto, Base64) {
    constexpr const char* kRows[][2] = {{"", ""},        {"f", "Zg=="},        {"fo", "Zm8="},
                                        {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"\xFB\xEF\xFF", "++//"}};
    for (const auto& [plain, text] : kRows) {
        const std::string_view bytes(plain);
        EXPECT_EQ(ZnCrypto::base64Encode(Bytes(bytes.begin(), bytes.end())), text);
        EXPECT_EQ(ZnCrypto::base64Decode(text), Bytes(bytes.begin(), bytes.end()));
    }
    EXPECT_EQ(ZnCrypto::base64Decode("QUJD=ignored"), (Bytes{'A', 'B', 'C'}));
    EXPECT_EQ(ZnCrypto::base64Decode("QUI\xFFQ"), (Bytes{'A', 'B'}));
}

} // namespace
