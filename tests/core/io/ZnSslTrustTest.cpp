#include "core/io/ZnSslTrust_.h"

#include "core/io/TlsPeers.h"

#include <memory>
#include <openssl/pem.h>
#include <sys/stat.h>

namespace {

using Context = std::shared_ptr<const ZnSslContextHandle_>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

/// Each test begins with no authorities but those it places, in a current directory of its own.
class ZnSslTrustTest : public ::testing::Test {
protected:
    ZnSslTrustTest() {
        EXPECT_TRUE(ZnOpenSslApi_::instance().ensureLoaded(&errorText_));
        std::filesystem::current_path(directory_.path().str());
        set("SSL_CERT_FILE", "none");
        set("SSL_CERT_DIR", "none");
    }
    ~ZnSslTrustTest() override {
        for (const char* name : {"SSL_CERT_FILE", "SSL_CERT_DIR", "ZN_SSL_CA_FILE", "ZN_SSL_CA_DIR"})
            ::unsetenv(name);
        ZnSslTrust_::setFallbackCaFile({});
        ZnSslTrust_::setFallbackCaDir({});
        ZnSslTrust_::setKeepsContexts(true); // forgets those of this test
        std::filesystem::current_path("/");
    }

    static void set(const char* name, const ZnString& value) { ::setenv(name, value.data(), 1); }
    Context context(const ZnString& caFile = {}) {
        Context found = ZnSslTrust_::clientContext(ZnOpenSslApi_::instance(), caFile, &errorText_);
        EXPECT_NE(found, nullptr) << errorText_;
        return found;
    }
    /// A context is kept when its sources have not been changed for a while.
    Context keptContext(const ZnString& caFile = {}) {
        for (int i = 0; i < 200 && context(caFile) != context(caFile); ++i)
            ::usleep(50000);
        EXPECT_EQ(context(caFile), context(caFile));
        return context(caFile);
    }
    /// Whether the certificate `name` passes with the context's authorities.
    bool trusts(const Context& context, const std::string& name) {
        const Certificate certificate = read_(name);
        const std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> check(X509_STORE_CTX_new(),
                                                                                    &X509_STORE_CTX_free);
        X509_STORE_CTX_init(check.get(), SSL_CTX_get_cert_store(context->get()), certificate.get(), nullptr);
        return X509_verify_cert(check.get()) == 1;
    }
    /// Puts an authority at `path`, or in the place of the one that is there: the same file with other bytes.
    void place(const std::string& path, const char* authority = "ca.pem") {
        directory_.file(path, contentOf(files_.path(authority)));
    }
    /// The name under which the authority of the tests is looked for in a directory.
    std::string hashedName() {
        char name[16];
        std::snprintf(name, sizeof(name), "%08lx.0", X509_subject_name_hash(read_("ca.pem").get()));
        return name;
    }
    Certificate read_(const std::string& name) {
        const std::unique_ptr<BIO, decltype(&BIO_free)> file(BIO_new_file(files_.path(name).data(), "r"), &BIO_free);
        return {PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr), &X509_free};
    }

    const TlsFiles& files_ = TlsFiles::instance();
    TemporaryDirectory directory_;
    ZnString errorText_;
};

TEST_F(ZnSslTrustTest, ACaFileThatIsNoneIsNamed) {
    ASSERT_EQ(::mkfifo("pipe", 0600), 0);
    directory_.file("empty", "");
    ::alarm(30); // a pipe that is opened waits for ever
    for (const ZnString text : {"none (file not found)", ". (file not found)", "empty", "pipe"}) {
        const ZnString path(text.view().substr(0, text.view().find(' ')));
        EXPECT_EQ(ZnSslTrust_::clientContext(ZnOpenSslApi_::instance(), path, &errorText_), nullptr);
        EXPECT_EQ(errorText_, "Failed to load CA file: " + text);
        EXPECT_EQ(ERR_peek_error(), 0U);
    }
    set("ZN_SSL_CA_FILE", "pipe");
    EXPECT_FALSE(trusts(context(), "good.pem"));
    ::alarm(0);
    place("ca");
    EXPECT_TRUE(trusts(context("ca"), "good.pem"));
}

TEST_F(ZnSslTrustTest, EverySourceIsFound) {
    const std::string hashed = hashedName();
    const std::string rows[][3] = {// a setting with its value, and where the authority lies
                                   {"SSL_CERT_FILE", "a", "a"},
                                   {"SSL_CERT_DIR", "none:b", "b/" + hashed},
                                   {"ZN_SSL_CA_FILE", "c", "c"},
                                   {"ZN_SSL_CA_DIR", "d", "d/" + hashed},
                                   {"fallback file", "e", "e"},
                                   {"fallback dir", "f", "f/" + hashed},
                                   {"", "", "certs/ca-bundle.pem"},
                                   {"", "", "certs/cacert.pem"},
                                   {"", "", "ssl/cert.pem"},
                                   {"", "", "ca-bundle.crt"},
                                   {"", "", "cert.pem"},
                                   {"", "", "certs/" + hashed},
                                   {"", "", "ssl/certs/" + hashed}};
    for (const auto& [name, value, path] : rows) {
        SCOPED_TRACE(path);
        EXPECT_FALSE(trusts(context(), "good.pem"));
        place(path);
        if (name == "fallback file")
            ZnSslTrust_::setFallbackCaFile(value);
        else if (name == "fallback dir")
            ZnSslTrust_::setFallbackCaDir(value);
        else
            set(name.empty() ? "ZN_SSL_CA_DIR" : name.c_str(), value); // an empty one counts for none
        EXPECT_TRUE(trusts(context(), "good.pem"));
        EXPECT_FALSE(trusts(context(), "wrongca.pem"));
        std::filesystem::remove(path);
    }
}

TEST_F(ZnSslTrustTest, AContextIsGivenAgainUntilASourceChanges) {
    const std::string hashed = "dir/" + hashedName();
    place("one");
    place("two");
    place(hashed);
    place("elsewhere/cert.pem");
    set("ZN_SSL_CA_FILE", "one");
    set("ZN_SSL_CA_DIR", "dir");
    const Context first = keptContext();
    EXPECT_EQ(keptContext("two"), context("two"));
    EXPECT_NE(context("two"), first);
    set("ZN_SSL_CA_FILE", "two");
    EXPECT_NE(context(), first);
    EXPECT_EQ(context(), context());

    set("ZN_SSL_CA_FILE", "");
    const Context fromDirectory = context();
    EXPECT_TRUE(trusts(fromDirectory, "good.pem")); // reads the file in the directory
    EXPECT_EQ(context(), fromDirectory);
    place(hashed, "otherca.pem");
    EXPECT_FALSE(trusts(context(), "good.pem"));

    set("ZN_SSL_CA_DIR", "");
    const Context withoutDirectory = context();
    EXPECT_EQ(context(), withoutDirectory);
    std::filesystem::current_path("elsewhere");
    EXPECT_TRUE(trusts(context(), "good.pem"));
    std::filesystem::current_path("..");
    EXPECT_FALSE(trusts(context(), "good.pem"));
    place("cert.pem");
    EXPECT_TRUE(trusts(context(), "good.pem"));
    EXPECT_TRUE(trusts(context("two"), "good.pem"));
    place("two", "otherca.pem");
    EXPECT_FALSE(trusts(context("two"), "good.pem"));
    EXPECT_TRUE(trusts(context("two"), "wrongca.pem"));
}

TEST_F(ZnSslTrustTest, OnlySoManyContextsAreKept) {
    constexpr std::size_t kCount = ZnSslTrust_::kMaxKeptContexts + 1;
    std::vector<std::weak_ptr<const ZnSslContextHandle_>> contexts;
    for (std::size_t i = 0; i < kCount; ++i)
        place("ca" + std::to_string(i));
    keptContext("ca" + std::to_string(kCount - 1));
    for (std::size_t i = 0; i < kCount; ++i)
        contexts.push_back(context("ca" + std::to_string(i)));
    EXPECT_TRUE(contexts[0].expired());
    EXPECT_FALSE(contexts[1].expired());
}

} // namespace
