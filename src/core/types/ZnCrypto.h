#pragma once

#include "core/types/ZnString.h"

#include <cstdint>
#include <vector>

enum class HashAlgorithm : std::int32_t { Md5 = 0, Sha1 = 1, Sha256 = 2, Sha512 = 3 };

/// Digests, AES in ECB mode over strings, base64 and random bytes.
///
/// Thread: any; no state. Failures of hash() and the AES operations are standard exceptions.
class ZnCrypto {
public:
    using Bytes = std::vector<unsigned char>;

    /// An algorithm outside the enumeration counts as Sha256.
    static Bytes hash(const ZnString& data, HashAlgorithm algorithm);
    /// The key must have 16, 24 or 32 bytes. Encrypting adds PKCS#7 padding; decrypting leaves it in place.
    static Bytes aesEcb(const Bytes& data, const Bytes& key, bool encrypt);
    /// Base64 text of the cipher; any key text serves (see normalizeAesKey).
    static ZnString encryptAES(const ZnString& key, const ZnString& plainText);
    /// A wrong key gives garbage, no error.
    static ZnString decryptAES(const ZnString& key, const ZnString& cipherText);
    /// 32 bytes: the key itself if it has that length, else its SHA-256 digest.
    static Bytes normalizeAesKey(const Bytes& key);
    static ZnString base64Encode(const Bytes& bytes);
    /// Decodes up to the end or the first byte outside the alphabet.
    static Bytes base64Decode(const ZnString& text);
    /// Fills `*out` with `count` random bytes; false when there is no entropy.
    static bool randomBytes(std::size_t count, Bytes* out);
};

/// Equality in a time that depends on the lengths alone: for secrets. Any thread.
bool constantTimeEquals(const ZnString& left, const ZnString& right) noexcept;
