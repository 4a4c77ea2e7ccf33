#include "core/types/ZnCrypto.h"

#include "support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <stdexcept>

namespace {

using Bytes = ZnCrypto::Bytes;

std::string hexOf(const Bytes& bytes) {
    std::string hex;
    for (unsigned char byte : bytes) {
        hex += "0123456789abcdef"[byte >> 4];
        hex += "0123456789abcdef"[byte & 15];
    }
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
    struct Row {
        HashAlgorithm algorithm;
        const char* data;
        const char* digest;
    };
    const Row kRows[] = {
        {HashAlgorithm::Md5, "", "d41d8cd98f00b204e9800998ecf8427e"},
        {HashAlgorithm::Md5, "abc", "900150983cd24fb0d6963f7d28e17f72"},
        {HashAlgorithm::Sha1, "", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        {HashAlgorithm::Sha1, "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {HashAlgorithm::Sha256, "", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {HashAlgorithm::Sha256, "abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {static_cast<HashAlgorithm>(9), "abc",
         "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {HashAlgorithm::Sha512, "abc",
         "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
         "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
    };
    for (const Row& row : kRows)
        EXPECT_EQ(hexOf(ZnCrypto::hash(row.data, row.algorithm)), row.digest);
}

// The example vectors of the cipher's standard, one per key length.
TEST(ZnCrypto, KnownAesBlocks) {
    struct Row {
        std::size_t keyBytes;
        const char* cipher;
    };
    constexpr Row kRows[] = {
        {16, "69c4e0d86a7b0430d8cdb78070b4c55a"},
        {24, "dda97ca4864cdfe06eaf70a0ec0d7191"},
        {32, "8ea2b7ca516745bfeafc49904b496089"},
    };
    const Bytes plain = counting(16, 0x11);
    for (const Row& row : kRows) {
        const Bytes key = counting(row.keyBytes);
        const Bytes cipher = ZnCrypto::aesEcb(plain, key, true);
        ASSERT_EQ(cipher.size(), 32u); // a whole block of padding
        EXPECT_EQ(hexOf(cipher).substr(0, 32), row.cipher);
        Bytes padded = plain;
        padded.insert(padded.end(), 16, 16);
        EXPECT_EQ(ZnCrypto::aesEcb(cipher, key, false), padded);
    }
    EXPECT_THROW(ZnCrypto::aesEcb(plain, counting(17), true), std::invalid_argument);
}

TEST(ZnCrypto, TextsSurviveEveryLengthAndKey) {
    for (const char* key :
         {"", "short", "exactly thirty-two bytes of key!", "longer than thirty-two bytes of key!!"}) {
        for (std::size_t length = 0; length <= 33; ++length) {
            const ZnString plain(std::string(length, '\x01'));
            const ZnString cipher = ZnCrypto::encryptAES(key, plain);
            EXPECT_EQ(cipher.size() % 4, 0u);
            EXPECT_EQ(ZnCrypto::decryptAES(key, cipher), plain);
        }
    }
    const Bytes key32 = counting(32);
    EXPECT_EQ(ZnCrypto::normalizeAesKey(key32), key32);
    EXPECT_EQ(ZnCrypto::normalizeAesKey({'a', 'b', 'c'}), ZnCrypto::hash("abc", HashAlgorithm::Sha256));
}

TEST(ZnCrypto, KeepsDataWithoutWellFormedPadding) {
    const ZnString key("exactly thirty-two bytes of key!");
    for (int last : {0, 3, 17}) {
        Bytes block(15, 'x');
        block.push_back(static_cast<unsigned char>(last));
        const Bytes padded = ZnCrypto::aesEcb(block, Bytes(key.begin(), key.end()), true);
        const ZnString firstBlock = ZnCrypto::base64Encode(Bytes(padded.begin(), padded.begin() + 16));
        EXPECT_EQ(ZnCrypto::decryptAES(key, firstBlock), ZnString(std::string(block.begin(), block.end())));
    }
}

TEST(ZnCrypto, FailuresNameTheirReason) {
    struct Row {
        const char* cipherText;
        const char* reason;
    };
    for (const Row& row : {Row{"", "Invalid data: empty."}, Row{"!AAAA", "Invalid data: empty."},
                           Row{"QUJD", "Failed to decrypt data."}}) {
        LogCapture log;
        EXPECT_EQ(ZnString(row.cipherText).decryptAES("key"), "");
        EXPECT_THAT(log.take(),
                    testing::ElementsAre(std::string("[ERROR] [zn.core.types.znstring] Decryption error: ") +
                                         row.reason + "\n"));
    }
    EXPECT_THROW(ZnCrypto::decryptAES("key", "!"), std::invalid_argument);
    EXPECT_EQ(ZnString("text").encryptAES("key").decryptAES("key"), "text");
}

TEST(ZnCrypto, Base64) {
    struct Row {
        const char* plain;
        const char* text;
    };
    for (const Row& row : {Row{"", ""}, Row{"f", "Zg=="}, Row{"fo", "Zm8="}, Row{"foo", "Zm9v"},
                           Row{"foob", "Zm9vYg=="}, Row{"\xFB\xEF\xFF", "++//"}}) {
        const std::string_view plain(row.plain);
        EXPECT_EQ(ZnCrypto::base64Encode(Bytes(plain.begin(), plain.end())), row.text);
        EXPECT_EQ(ZnCrypto::base64Decode(row.text), Bytes(plain.begin(), plain.end()));
    }
    EXPECT_EQ(ZnCrypto::base64Decode("QUJD=ignored"), (Bytes{'A', 'B', 'C'}));
    EXPECT_EQ(ZnCrypto::base64Decode("QUI\xFFQ"), (Bytes{'A', 'B'}));
    EXPECT_EQ(ZnCrypto::base64Decode("Q"), Bytes());
}

TEST(ZnCrypto, RandomBytesFillAndDiffer) {
    Bytes bytes{1, 2, 3};
    EXPECT_TRUE(ZnCrypto::randomBytes(0, &bytes));
    EXPECT_TRUE(bytes.empty());
    std::set<Bytes> seen;
    for (int round = 0; round < 20; ++round) {
        EXPECT_TRUE(ZnCrypto::randomBytes(16, &bytes));
        EXPECT_EQ(bytes.size(), 16u);
        seen.insert(bytes);
    }
    EXPECT_EQ(seen.size(), 20u);
}

} // namespace
