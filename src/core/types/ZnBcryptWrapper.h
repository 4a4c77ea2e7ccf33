#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

struct evp_md_st;
struct evp_md_ctx_st;
struct evp_cipher_st;
struct evp_cipher_ctx_st;

/// The digest and block cipher service that ZnCrypto is written against, over OpenSSL's EVP functions.
///
/// Thread: any; no state of its own. Every call works on the objects it is given, and an object belongs to
/// one thread at a time. Each operation yields a status: kSuccess, or what went wrong.
class BcryptWrapper {
public:
    using Status = std::uint32_t;
    static constexpr Status kSuccess = 0;
    static constexpr Status kInvalidHandle = 0xC0000008;
    static constexpr Status kInvalidParameter = 0xC000000D;
    static constexpr Status kNotSupported = 0xC00000BB;
    static constexpr Status kUnsuccessful = 0xC0000001;

    /// One algorithm with its settings. Closed by CloseAlgorithmProvider or on destruction.
    struct Algorithm {
        const evp_md_st* digest = nullptr; // a digest algorithm, or
        bool isAes = false;                // the block cipher
        bool isEcb = false;
    };
    struct FreeHash_ {
        void operator()(evp_md_ctx_st* context) const noexcept;
    };
    using Hash = std::unique_ptr<evp_md_ctx_st, FreeHash_>;
    /// An AES key, ready for one Encrypt or Decrypt after the other.
    struct Key {
        const evp_cipher_st* cipher = nullptr;
        std::vector<unsigned char> secret;
    };

    static BcryptWrapper& instance();

    /// "MD5", "SHA1", "SHA256", "SHA512" or "AES".
    Status OpenAlgorithmProvider(Algorithm* algorithm, std::string_view id) const noexcept;
    Status CloseAlgorithmProvider(Algorithm* algorithm) const noexcept;
    Status CreateHash(const Algorithm& algorithm, Hash* hash) const noexcept;
    Status HashData(const Hash& hash, const void* data, std::size_t byteCount) const noexcept;
    /// `byteCount` must be the digest's length.
    Status FinishHash(const Hash& hash, unsigned char* digest, std::size_t byteCount) const noexcept;
    Status DestroyHash(Hash* hash) const noexcept;
    /// "ObjectLength", "HashDigestLength" (digests), "BlockLength" (AES), in bytes.
    Status GetProperty(const Algorithm& algorithm, std::string_view name, std::uint32_t* value) const noexcept;
    /// "ChainingMode" to "ChainingModeECB", of AES.
    Status SetProperty(Algorithm* algorithm, std::string_view name, std::string_view value) const noexcept;
    Status GenerateSymmetricKey(const Algorithm& algorithm, Key* key, const std::vector<unsigned char>& secret) const;
    /// Without padding: `in` must be whole blocks. `out` takes as many bytes; `*outBytes` tells how many
    /// came.
    Status Encrypt(const Key& key, const std::vector<unsigned char>& in, unsigned char* out,
                   std::size_t* outBytes) const noexcept;
    Status Decrypt(const Key& key, const std::vector<unsigned char>& in, unsigned char* out,
                   std::size_t* outBytes) const noexcept;
    /// Wipes the secret.
    Status DestroyKey(Key* key) const noexcept;

private:
    BcryptWrapper() = default;
};
