#include "core/types/ZnCrypto.h"

#include "core/types/ZnBcryptWrapper.h"

#include <algorithm>
#include <array>
#include <climits>
#include <stdexcept>

#include <openssl/rand.h>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::size_t kNormalKeyBytes = 32;
constexpr std::size_t kMaxPadding = 16;

/// The value of each byte in base64, -1 outside the alphabet.
constexpr std::array<short, 256> kDigitValues = [] {
    std::array<short, 256> values{};
    values.fill(-1);
    for (int value = 0; value < 64; ++value)
        values[static_cast<unsigned char>(kAlphabet[value])] = static_cast<short>(value);
    return values;
}();

void require(BcryptWrapper::Status status, const char* message) {
    if (status != BcryptWrapper::kSuccess)
        throw std::runtime_error(message);
}

/// An opened algorithm, closed on every way out.
class Provider_ {
public:
    Provider_(std::string_view id, const char* message) {
        require(BcryptWrapper::instance().OpenAlgorithmProvider(&algorithm_, id), message);
    }
    ~Provider_() { BcryptWrapper::instance().CloseAlgorithmProvider(&algorithm_); }
    Provider_(const Provider_&) = delete;
    Provider_& operator=(const Provider_&) = delete;
    BcryptWrapper::Algorithm* get() { return &algorithm_; }
    std::uint32_t property(std::string_view name, const char* message) const {
        std::uint32_t value = 0;
        require(BcryptWrapper::instance().GetProperty(algorithm_, name, &value), message);
        return value;
    }

private:
    BcryptWrapper::Algorithm algorithm_;
};

/// A key whose secret is wiped on every way out.
class KeyHolder_ {
public:
    KeyHolder_() = default;
    ~KeyHolder_() { BcryptWrapper::instance().DestroyKey(&key_); }
    KeyHolder_(const KeyHolder_&) = delete;
    KeyHolder_& operator=(const KeyHolder_&) = delete;
    BcryptWrapper::Key* get() { return &key_; }

private:
    BcryptWrapper::Key key_;
};

std::string_view algorithmId(HashAlgorithm algorithm) {
    switch (algorithm) {
    case HashAlgorithm::Md5: return "MD5";
    case HashAlgorithm::Sha1: return "SHA1";
    case HashAlgorithm::Sha512: return "SHA512";
    case HashAlgorithm::Sha256: break;
    }
    return "SHA256";
}

ZnCrypto::Bytes bytesOf(const ZnString& text) {
    return ZnCrypto::Bytes(text.begin(), text.end());
}

ZnCrypto::Bytes withPadding(const ZnCrypto::Bytes& data, std::size_t blockBytes) {
    const std::size_t padding = blockBytes - data.size() % blockBytes;
    ZnCrypto::Bytes padded;
    padded.reserve(data.size() + padding);
    padded.assign(data.begin(), data.end());
    padded.insert(padded.end(), padding, static_cast<unsigned char>(padding));
    return padded;
}

/// The length without a well-formed padding; the whole length without one.
std::size_t unpaddedBytes(const ZnCrypto::Bytes& data) {
    const std::size_t padding = data.back();
    if (padding == 0 || padding > kMaxPadding || padding > data.size())
        return data.size();
    const auto tail = data.end() - static_cast<std::ptrdiff_t>(padding);
    const bool isPadded = std::all_of(tail, data.end(), [padding](unsigned char byte) { return byte == padding; });
    return isPadded ? data.size() - padding : data.size();
}

} // namespace

ZnCrypto::Bytes ZnCrypto::hash(const ZnString& data, HashAlgorithm algorithm) {
    const BcryptWrapper& bcrypt = BcryptWrapper::instance();
    Provider_ provider(algorithmId(algorithm), "Failed to open algorithm provider.");
    provider.property("ObjectLength", "Failed to get hash object size.");
    Bytes digest(provider.property("HashDigestLength", "Failed to get hash size."));
    BcryptWrapper::Hash hash; // closes itself
    require(bcrypt.CreateHash(*provider.get(), &hash), "Failed to create hash.");
    require(bcrypt.HashData(hash, data.data(), data.size()), "Failed to hash data.");
    require(bcrypt.FinishHash(hash, digest.data(), digest.size()), "Failed to finish hash.");
    return digest;
}

ZnCrypto::Bytes ZnCrypto::aesEcb(const Bytes& data, const Bytes& key, bool encrypt) {
    const BcryptWrapper& bcrypt = BcryptWrapper::instance();
    Provider_ provider("AES", "Failed to open AES algorithm provider.");
    require(bcrypt.SetProperty(provider.get(), "ChainingMode", "ChainingModeECB"),
            "Failed to set AES chaining mode to ECB.");
    provider.property("ObjectLength", "Failed to get AES key object size.");
    const std::uint32_t blockBytes = provider.property("BlockLength", "Failed to get AES block size.");
    if (key.size() != 16 && key.size() != 24 && key.size() != 32)
        throw std::invalid_argument("Invalid AES key size. Key must be 16, 24, or 32 bytes.");
    KeyHolder_ aesKey;
    require(bcrypt.GenerateSymmetricKey(*provider.get(), aesKey.get(), key), "Failed to generate AES key.");
    std::size_t resultBytes = 0;
    Bytes result;
    if (encrypt) {
        const Bytes padded = withPadding(data, blockBytes);
        result.resize(padded.size());
        require(bcrypt.Encrypt(*aesKey.get(), padded, result.data(), &resultBytes), "Failed to encrypt data.");
    } else {
        result.resize(data.size() + blockBytes); // the library may hold back, and write, one block more
        require(bcrypt.Decrypt(*aesKey.get(), data, result.data(), &resultBytes), "Failed to decrypt data.");
    }
    result.resize(resultBytes);
    return result;
}

ZnString ZnCrypto::encryptAES(const ZnString& key, const ZnString& plainText) {
    return base64Encode(aesEcb(bytesOf(plainText), normalizeAesKey(bytesOf(key)), true));
}

ZnString ZnCrypto::decryptAES(const ZnString& key, const ZnString& cipherText) {
    const Bytes plain = aesEcb(base64Decode(cipherText), normalizeAesKey(bytesOf(key)), false);
    if (plain.empty())
        throw std::invalid_argument("Invalid data: empty.");
    return ZnString(std::string(plain.begin(), plain.begin() + static_cast<std::ptrdiff_t>(unpaddedBytes(plain))));
}

ZnCrypto::Bytes ZnCrypto::normalizeAesKey(const Bytes& key) {
    if (key.size() == kNormalKeyBytes)
        return key;
    return hash(ZnString(std::string(key.begin(), key.end())), HashAlgorithm::Sha256);
}

ZnString ZnCrypto::base64Encode(const Bytes& bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::size_t count = std::min<std::size_t>(bytes.size() - at, 3);
        const unsigned group = static_cast<unsigned>(bytes[at] << 16) |
                               static_cast<unsigned>(count > 1 ? bytes[at + 1] << 8 : 0) |
                               static_cast<unsigned>(count > 2 ? bytes[at + 2] : 0);
        text += kAlphabet[group >> 18];
        text += kAlphabet[(group >> 12) & 63];
        text += count > 1 ? kAlphabet[(group >> 6) & 63] : '=';
        text += count > 2 ? kAlphabet[group & 63] : '=';
    }
    return text;
}

ZnCrypto::Bytes ZnCrypto::base64Decode(const ZnString& text) {
    Bytes bytes;
    bytes.reserve(text.size() / 4 * 3 + 2);
    unsigned pending = 0;
    int pendingBits = 0;
    for (char c : text) {
        const int value = kDigitValues[static_cast<unsigned char>(c)];
        if (value < 0)
            break;
        pending = (pending << 6 | static_cast<unsigned>(value)) & 0xFFF; // at most 6 + 6 bits are still needed
        pendingBits += 6;
        if (pendingBits >= 8) {
            pendingBits -= 8;
            bytes.push_back(static_cast<unsigned char>(pending >> pendingBits));
        }
    }
    return bytes;
}

bool ZnCrypto::randomBytes(std::size_t count, Bytes* out) {
    out->assign(count, 0);
    if (count == 0)
        return true;
    return count <= static_cast<std::size_t>(INT_MAX) && RAND_bytes(out->data(), static_cast<int>(count)) == 1;
}

bool constantTimeEquals(const ZnString& left, const ZnString& right) noexcept {
    if (left.size() != right.size())
        return false;
    volatile unsigned char difference = 0; // volatile: keeps the compiler from leaving the loop early
    for (std::size_t index = 0; index < left.size(); ++index)
        difference = static_cast<unsigned char>(difference | (left[index] ^ right[index]));
    return difference == 0;
}
