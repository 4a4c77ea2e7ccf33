#include "core/types/ZnBcryptWrapper.h"

#include <climits>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>

namespace {

constexpr std::uint32_t kAesBlockBytes = 16;

struct FreeCipher_ {
    void operator()(EVP_CIPHER_CTX* context) const noexcept { EVP_CIPHER_CTX_free(context); }
};

const EVP_MD* digestNamed(std::string_view id) {
    if (id == "MD5")
        return EVP_md5();
    if (id == "SHA1")
        return EVP_sha1();
    if (id == "SHA256")
        return EVP_sha256();
    return id == "SHA512" ? EVP_sha512() : nullptr;
}

const EVP_CIPHER* aesForKeyBytes(std::size_t keyBytes) {
    switch (keyBytes) {
    case 16: return EVP_aes_128_ecb();
    case 24: return EVP_aes_192_ecb();
    case 32: return EVP_aes_256_ecb();
    default: return nullptr;
    }
}

BcryptWrapper::Status runCipher(const BcryptWrapper::Key& key, const std::vector<unsigned char>& in, unsigned char* out,
                                std::size_t* outBytes, int encrypt) {
    if (key.cipher == nullptr)
        return BcryptWrapper::kInvalidHandle;
    if (in.size() > static_cast<std::size_t>(INT_MAX))
        return BcryptWrapper::kInvalidParameter;
    const std::unique_ptr<EVP_CIPHER_CTX, FreeCipher_> context(EVP_CIPHER_CTX_new());
    int bodyBytes = 0;
    int tailBytes = 0;
    ERR_set_mark();
    // The caller pads; with the library's padding off, a partial block makes the last step fail.
    const bool isDone =
        context && EVP_CipherInit_ex(context.get(), key.cipher, nullptr, key.secret.data(), nullptr, encrypt) == 1 &&
        EVP_CIPHER_CTX_set_padding(context.get(), 0) == 1 &&
        EVP_CipherUpdate(context.get(), out, &bodyBytes, in.data(), static_cast<int>(in.size())) == 1 &&
        EVP_CipherFinal_ex(context.get(), out + bodyBytes, &tailBytes) == 1;
    ERR_pop_to_mark(); // a TLS socket of this thread must not take the failure for its own
    if (!isDone)
        return BcryptWrapper::kUnsuccessful;
    *outBytes = static_cast<std::size_t>(bodyBytes) + static_cast<std::size_t>(tailBytes);
    return BcryptWrapper::kSuccess;
}

BcryptWrapper::Status statusOf(int evpResult) {
    return evpResult == 1 ? BcryptWrapper::kSuccess : BcryptWrapper::kUnsuccessful;
}

} // namespace

void BcryptWrapper::FreeHash_::operator()(evp_md_ctx_st* context) const noexcept {
    EVP_MD_CTX_free(context);
}

BcryptWrapper& BcryptWrapper::instance() {
    static BcryptWrapper wrapper;
    return wrapper;
}

BcryptWrapper::Status BcryptWrapper::OpenAlgorithmProvider(Algorithm* algorithm, std::string_view id) const noexcept {
    *algorithm = Algorithm();
    algorithm->isAes = id == "AES";
    algorithm->digest = digestNamed(id);
    return algorithm->isAes || algorithm->digest != nullptr ? kSuccess : kNotSupported;
}

BcryptWrapper::Status BcryptWrapper::CloseAlgorithmProvider(Algorithm* algorithm) const noexcept {
    *algorithm = Algorithm();
    return kSuccess;
}

BcryptWrapper::Status BcryptWrapper::CreateHash(const Algorithm& algorithm, Hash* hash) const noexcept {
    if (algorithm.digest == nullptr)
        return kInvalidHandle;
    hash->reset(EVP_MD_CTX_new());
    return *hash ? statusOf(EVP_DigestInit_ex(hash->get(), algorithm.digest, nullptr)) : kUnsuccessful;
}

BcryptWrapper::Status BcryptWrapper::HashData(const Hash& hash, const void* data,
                                              std::size_t byteCount) const noexcept {
    return hash ? statusOf(EVP_DigestUpdate(hash.get(), data, byteCount)) : kInvalidHandle;
}

BcryptWrapper::Status BcryptWrapper::FinishHash(const Hash& hash, unsigned char* digest,
                                                std::size_t byteCount) const noexcept {
    if (!hash)
        return kInvalidHandle;
    if (byteCount != static_cast<std::size_t>(EVP_MD_CTX_size(hash.get())))
        return kInvalidParameter;
    return statusOf(EVP_DigestFinal_ex(hash.get(), digest, nullptr));
}

BcryptWrapper::Status BcryptWrapper::DestroyHash(Hash* hash) const noexcept {
    hash->reset();
    return kSuccess;
}

BcryptWrapper::Status BcryptWrapper::GetProperty(const Algorithm& algorithm, std::string_view name,
                                                 std::uint32_t* value) const noexcept {
    if (name == "HashDigestLength" && algorithm.digest != nullptr)
        *value = static_cast<std::uint32_t>(EVP_MD_size(algorithm.digest));
    else if (name == "BlockLength" && algorithm.isAes)
        *value = kAesBlockBytes;
    else if (name == "ObjectLength" && (algorithm.isAes || algorithm.digest != nullptr))
        *value = 0; // the library allocates its objects itself
    else
        return kNotSupported;
    return kSuccess;
}

BcryptWrapper::Status BcryptWrapper::SetProperty(Algorithm* algorithm, std::string_view name,
                                                 std::string_view value) const noexcept {
    if (!algorithm->isAes || name != "ChainingMode" || value != "ChainingModeECB")
        return kNotSupported;
    algorithm->isEcb = true;
    return kSuccess;
}

BcryptWrapper::Status BcryptWrapper::GenerateSymmetricKey(const Algorithm& algorithm, Key* key,
                                                          const std::vector<unsigned char>& secret) const {
    if (!algorithm.isEcb)
        return kInvalidHandle;
    key->cipher = aesForKeyBytes(secret.size());
    if (key->cipher == nullptr)
        return kInvalidParameter;
    key->secret = secret;
    return kSuccess;
}

BcryptWrapper::Status BcryptWrapper::Encrypt(const Key& key, const std::vector<unsigned char>& in, unsigned char* out,
                                             std::size_t* outBytes) const noexcept {
    return runCipher(key, in, out, outBytes, 1);
}

BcryptWrapper::Status BcryptWrapper::Decrypt(const Key& key, const std::vector<unsigned char>& in, unsigned char* out,
                                             std::size_t* outBytes) const noexcept {
    return runCipher(key, in, out, outBytes, 0);
}

BcryptWrapper::Status BcryptWrapper::DestroyKey(Key* key) const noexcept {
    OPENSSL_cleanse(key->secret.data(), key->secret.size());
    *key = Key();
    return kSuccess;
}
