#include "core/fs/TemporaryDirectory.h"
#include "core/io/ZnSslEngine_.h"
#include "core/types/ZnCrypto.h"

#include <algorithm>
#include <cstdio>
#include <dlfcn.h>

// Texts can be encrypted, so every program has libcrypto. Not this one, so that it can be missing: the test says so if
// the substitutes do no longer suffice.
ZnString ZnCrypto::encryptAES(const ZnString&, const ZnString&) {
    return {};
}
ZnString ZnCrypto::decryptAES(const ZnString&, const ZnString&) {
    return {};
}

namespace {

constexpr const char* kNotLoaded = "Unable to load OpenSSL (searched PATH and fallbacks)";
constexpr const char* kIncomplete = "Missing required OpenSSL symbols";
constexpr const char* kRequired[] = {"TLS_client_method", "SSL_CTX_new", "SSL_new",   "SSL_set_fd",
                                     "SSL_do_handshake",  "SSL_get_error", "SSL_read", "SSL_write",
                                     "SSL_shutdown"};

// --- what runs in a process of its own, since a library stays loaded

ZnString probeLoad() {
    ZnString errorText;
    return ZnOpenSslApi_::instance().ensureLoaded(&errorText) ? ZnString("loaded") : errorText;
}

ZnString probeClient(std::uint64_t socketHandle) {
    ZnSslEngine_ engine;
    return engine.initClient("localhost", socketHandle, {}) ? ZnString("ready") : engine.lastError();
}

ZnString probeServer() {
    ZnString errorText;
    const auto context = ZnSslServerContext::buildServerContext_({{"a.test", "a.pem", "a.key", false}}, &errorText);
    if (!context)
        return errorText;
    ZnSslEngine_ engine;
    return engine.initServer(context, 0) ? ZnString("ready") : engine.lastError();
}

ZnString runProbe(const std::string& name) {
    if (name == "load")
        return probeLoad();
    if (name == "load-twice") { // the library has come in between
        const ZnString first = probeLoad();
        std::filesystem::rename("later.so", "libssl.so.3");
        return first + ", then " + probeLoad();
    }
    return name == "server" ? probeServer() : probeClient(name == "far-client" ? 0x80000000U : 0U);
}

// --- the tests

/// A directory with libraries that pretend to be OpenSSL, and the probes that are run with it.
class ZnSslBindingTest : public ::testing::Test {
protected:
    /// A libssl without the functions in `missing`: a name that has another first letter is not found.
    void place(const std::string& fileName, const std::vector<std::string>& missing = {}) {
        std::string library = contentOf(ZN_FAKE_SSL);
        for (const std::string& name : missing) {
            const std::size_t at = library.find('\0' + name + '\0');
            ASSERT_NE(at, std::string::npos) << name;
            library[at + 1] = '_';
        }
        directory_.file(fileName, library);
    }
    /// Hides the system's library of this name: the search ends at a file that is none.
    void hide(const std::string& fileName) { directory_.file(fileName, ""); }
    /// What a probe says that finds libraries in the directory first; `environment` is set for it.
    std::string probe(const std::string& name, const std::string& environment = {}) const {
        const std::string here = directory_.path().str();
        const std::string command = "cd '" + here + "' && LD_LIBRARY_PATH='" + here + "' " + environment + " exec '" +
                                    std::filesystem::read_symlink("/proc/self/exe").string() + "' --probe " + name;
        FILE* output = ::popen(command.c_str(), "r");
        char buffer[1024];
        const std::string text(buffer, std::fread(buffer, 1, sizeof(buffer), output));
        EXPECT_EQ(::pclose(output), 0) << command;
        return text;
    }

    TemporaryDirectory directory_;
};

TEST_F(ZnSslBindingTest, TheNewestNameWinsWhereverItLies) {
    const std::string apart = directory_.path("apart").str();
    hide("libssl.so.3");
    hide("libssl.so");
    EXPECT_EQ(probe("load"), kNotLoaded);
    place("libssl.so.1.1");
    EXPECT_EQ(probe("load"), "loaded");
    place("apart/libssl.so.3", {"TLS_server_method"});
    EXPECT_EQ(probe("server"), "ready");
    EXPECT_EQ(probe("server", "ZN_SSL_PATH='" + apart + "'"), "ready"); // no "/" at its end: part of the file's name
    EXPECT_EQ(probe("server", "ZN_SSL_PATH='" + apart + "/'"), "TLS_server_method not available");
}

TEST_F(ZnSslBindingTest, AFailedLoadIsTriedAgain) {
    hide("libssl.so.3");
    hide("libssl.so");
    place("later.so");
    EXPECT_EQ(probe("load-twice"), std::string(kNotLoaded) + ", then loaded");
    place("libssl.so.3", {"SSL_read"});
    place("later.so");
    EXPECT_EQ(probe("load"), kIncomplete);
}

TEST_F(ZnSslBindingTest, EitherLibraryMayBeTheOldOne) {
    if (::dlopen("libcrypto.so.3", RTLD_LAZY | RTLD_NOLOAD) != nullptr)
        GTEST_SKIP() << "this program is linked with libcrypto, as a build of shared libraries is";
    place("libssl.so.3");
    for (const char* name : {"libcrypto.so.3", "libcrypto.so.1.1", "libcrypto.so"})
        hide(name);
    EXPECT_EQ(probe("load"), kNotLoaded);
    place("apart/libcrypto.so.1.1");
    EXPECT_EQ(probe("load", "ZN_SSL_PATH=apart/"), "loaded");
    hide("libssl.so.3");
    hide("libssl.so");
    place("apart/libssl.so.1.1");
    EXPECT_EQ(probe("client", "ZN_SSL_PATH=apart/"), "ready"); // with no function of libcrypto at all
}

TEST_F(ZnSslBindingTest, OnlyTheRequiredFunctionsMustBeThere) {
    for (const char* name : kRequired) {
        place("libssl.so.3", {name});
        EXPECT_EQ(probe("load"), kIncomplete) << name;
    }
    std::vector<std::string> others;
#define NOTE(name, library, isRequired)                                                                            \
    if (std::string(#library) == "ssl" && std::count(std::begin(kRequired), std::end(kRequired), std::string(#name)) == 0) \
        others.push_back(#name);
    ZN_OPENSSL_SYMBOLS(NOTE)
#undef NOTE
    place("libssl.so.3", others);
    EXPECT_EQ(probe("load"), "loaded");
    EXPECT_EQ(probe("client"), "SSL_CTX_set_verify missing");
}

TEST_F(ZnSslBindingTest, WhatIsMissingOrFailsIsNamed) {
    struct Row {
        const char* probe;
        const char* missing; // a function that the library lacks
        const char* failing; // one that gives 0
        const char* text;
    };
    const Row rows[] = {
        {"client", "", "", "ready"},
        {"far-client", "", "", "Socket handle out of range for SSL_set_fd"},
        {"client", "SSL_set1_host", "", "SSL_set1_host missing"},
        {"client", "", "SSL_CTX_new", "SSL_CTX_new failed"},
        {"client", "", "SSL_new", "SSL_new failed"},
        {"client", "", "SSL_set_fd", "SSL_set_fd failed"},
        {"client", "SSL_ctrl", "", "ready"},
        {"client", "SSL_CTX_ctrl", "", "ready"},
        {"client", "SSL_set_connect_state", "", "ready"},
        {"server", "", "", "ready"},
        {"server", "TLS_server_method", "", "TLS_server_method not available"},
        {"server", "", "SSL_CTX_new", "SSL_CTX_new (server) failed"},
        {"server", "", "SSL_CTX_use_certificate_chain_file", "ready"}, // the other way to load it remains
        {"server", "SSL_CTX_use_certificate_file", "SSL_CTX_use_certificate_chain_file",
         "Failed to load certificate: a.pem"},
        {"server", "SSL_CTX_use_PrivateKey_file", "", "Failed to load private key: a.key"},
        {"server", "", "SSL_CTX_check_private_key", "Private key does not match certificate"},
        {"server", "SSL_CTX_check_private_key", "", "ready"},
        {"server", "SSL_CTX_callback_ctrl", "", "OpenSSL SNI symbols are not available"},
        {"server", "SSL_get_servername", "", "OpenSSL SNI symbols are not available"},
        {"server", "SSL_set_SSL_CTX", "", "OpenSSL SNI symbols are not available"},
        {"server", "", "SSL_CTX_callback_ctrl", "Unable to install TLS SNI callback"},
        {"server", "", "SSL_CTX_ctrl", "Unable to install TLS SNI callback context"},
        {"server", "SSL_set_accept_state", "", "SSL_set_accept_state not available"},
        {"server", "", "SSL_new", "SSL_new (server) failed"},
        {"server", "", "SSL_set_fd", "SSL_set_fd failed"},
    };
    for (const Row& row : rows) {
        place("libssl.so.3", row.missing[0] == '\0' ? std::vector<std::string>() : std::vector<std::string>{row.missing});
        EXPECT_EQ(probe(row.probe, std::string("FAKE_SSL_FAILS=") + row.failing), row.text)
            << "without " << row.missing << ", with a failing " << row.failing;
    }
}

TEST_F(ZnSslBindingTest, TheTextOfMissingRootsListsWhatWasTried) {
    const std::string noRoots = "No trusted CA certificates available (openssl-defaults ";
    const std::string noStore = "; windows-system-store unavailable";
    const std::string failsAll = "FAKE_SSL_FAILS=SSL_CTX_set_default_verify_paths,SSL_CTX_load_verify_locations ";
    place("libssl.so.3", {"SSL_CTX_set_default_verify_paths"});
    EXPECT_EQ(probe("client"), noRoots + "unavailable" + noStore + ")");
    EXPECT_EQ(probe("client", "ZN_SSL_CA_FILE=libssl.so.3"), "ready");
    EXPECT_EQ(probe("client", "ZN_SSL_CA_FILE=none ZN_SSL_CA_DIR=libssl.so.3"), noRoots + "unavailable" + noStore + ")");

    const std::string here = directory_.path().str();
    directory_.file("certs/cert.pem", "");
    directory_.file("cert.pem", "");
    const auto details = [&](const std::string& how) {
        return noStore + "; env ZN_SSL_CA_FILE" + how + "; env ZN_SSL_CA_DIR" + how + "; bundle:" + here +
               "/certs/cert.pem" + how + "; bundle:" + here + "/cert.pem" + how + "; bundle-dir:" + here + "/certs" +
               how + ")";
    };
    const std::string places = "ZN_SSL_CA_FILE=cert.pem ZN_SSL_CA_DIR=certs";
    EXPECT_EQ(probe("client", failsAll + places), noRoots + "unavailable" + details(" failed"));
    place("libssl.so.3", {"SSL_CTX_load_verify_locations"});
    EXPECT_EQ(probe("client", failsAll + places), noRoots + "failed" + details(" unavailable"));
    EXPECT_EQ(probe("client", places), "ready");
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--probe") {
        std::printf("%s", runProbe(argv[2]).data());
        return 0;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
