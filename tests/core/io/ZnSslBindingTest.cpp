#include "core/fs/TemporaryDirectory.h"
#include "core/io/ZnSslEngine_.h"
#include "core/io/ZnSslServerContext.h"

#include <cstdio>

namespace {

constexpr const char* kNotLoaded = "Unable to load OpenSSL (searched PATH and fallbacks)";

ZnString load() {
    ZnString errorText;
    return ZnOpenSslApi_::instance().ensureLoaded(&errorText) ? ZnString("loaded") : errorText;
}

/// Runs in a process of its own, since a library stays loaded.
ZnString runProbe(const std::string& name) {
    ZnSslEngine_ engine;
    if (name == "load")
        return load();
    if (name == "load-twice") { // the library comes in between
        const ZnString first = load();
        std::filesystem::rename("later.so", "libssl.so.3");
        return first + ", then " + load();
    }
    if (name != "server")
        return engine.initClient("localhost", name == "far" ? 0x80000000U : 0U, {}) ? "ready" : engine.lastError();
    ZnString errorText;
    const auto context = ZnSslServerContext::buildServerContext_({{"a.test", "a.pem", "a.key", false}}, &errorText);
    if (!context)
        return errorText;
    return engine.initServer(context, 0) ? "ready" : engine.lastError();
}

class ZnSslBindingTest : public ::testing::Test {
protected:
    /// A library without the functions in `missing`: a name with another first letter is not found.
    void place(const std::string& fileName, const std::vector<std::string>& missing = {}) {
        std::string library = contentOf(ZN_FAKE_SSL);
        for (const std::string& name : missing) {
            const std::size_t at = library.find('\0' + name + '\0');
            ASSERT_NE(at, std::string::npos) << name;
            library[at + 1] = '_';
        }
        directory_.file(fileName, library);
    }
    /// Hides the system's libraries of that kind: the search ends at a file that is none.
    void hide(const std::string& name) {
        for (const char* end : {".so.3", ".so.1.1", ".so"})
            directory_.file(name + end, "");
    }
    /// What a probe says that finds the directory's libraries first, with `environment`.
    std::string probe(const std::string& name, const std::string& environment = {}) const {
        const std::string command = "cd '" + here_ + "' && LD_LIBRARY_PATH='" + here_ + "' " + environment + " exec '" +
                                    std::filesystem::read_symlink("/proc/self/exe").string() + "' --probe " + name;
        FILE* output = ::popen(command.c_str(), "r");
        char buffer[1024];
        const std::string text(buffer, std::fread(buffer, 1, sizeof(buffer), output));
        EXPECT_EQ(::pclose(output), 0) << command;
        return text;
    }

    TemporaryDirectory directory_;
    const std::string here_ = directory_.path().str();
};

TEST_F(ZnSslBindingTest, TheNewestNameWinsWhereverItLies) {
    hide("libssl");
    EXPECT_EQ(probe("load"), kNotLoaded);
    place("later.so");
    EXPECT_EQ(probe("load-twice"), std::string(kNotLoaded) + ", then loaded");
    hide("libssl");
    place("libssl.so.1.1");
    place("apart/libssl.so.3", {"TLS_server_method"});
    EXPECT_EQ(probe("server"), "ready");
    EXPECT_EQ(probe("server", "ZN_SSL_PATH=./apart"), "ready"); // no "/" at its end: part of the file's name
    EXPECT_EQ(probe("server", "ZN_SSL_PATH=./apart/"), "TLS_server_method not available");
}

TEST_F(ZnSslBindingTest, ALibraryWithoutTheRequiredFunctionsIsNotLoaded) {
    for (const char* name : {"TLS_client_method", "SSL_CTX_new", "SSL_new", "SSL_set_fd", "SSL_do_handshake",
                             "SSL_read", "SSL_write", "SSL_get_error", "SSL_shutdown"}) {
        place("libssl.so.3", {name});
        EXPECT_EQ(probe("load"), "Missing required OpenSSL symbols") << name;
    }
}

TEST_F(ZnSslBindingTest, WhatIsMissingOrFailsIsNamed) {
    // The functions that the library lacks, and one that gives 0.
    struct Row {
        const char* probe;
        std::vector<std::string> missing;
        std::string failing;
        const char* text;
    };
    const Row rows[] = {
        {"client", {"SSL_ctrl", "SSL_CTX_ctrl", "SSL_set_connect_state", "SSL_CTX_get_cert_store"}, "", "ready"},
        {"far", {}, "", "Socket handle out of range for SSL_set_fd"},
        {"client", {"SSL_CTX_set_verify"}, "", "SSL_CTX_set_verify missing"},
        {"client", {"SSL_set1_host"}, "", "SSL_set1_host missing"},
        {"client", {}, "SSL_set1_host", "SSL_set1_host failed"},
        {"server", {}, "SSL_CTX_new", "SSL_CTX_new (server) failed"},
        {"server", {"SSL_CTX_check_private_key"}, "SSL_CTX_use_certificate_chain_file", "ready"},
        {"server",
         {"SSL_CTX_use_certificate_file"},
         "SSL_CTX_use_certificate_chain_file",
         "Failed to load certificate: a.pem"},
        {"server", {"SSL_CTX_use_PrivateKey_file"}, "", "Failed to load private key: a.key"},
        {"server", {}, "SSL_CTX_check_private_key", "Private key does not match certificate"},
        {"server", {"SSL_get_servername"}, "", "OpenSSL SNI symbols are not available"},
        {"server", {}, "SSL_CTX_callback_ctrl", "Unable to install TLS SNI callback"},
        {"server", {}, "SSL_CTX_ctrl", "Unable to install TLS SNI callback context"},
        {"server", {}, "SSL_new", "SSL_new (server) failed"}};
    for (const Row& row : rows) {
        place("libssl.so.3", row.missing);
        EXPECT_EQ(probe(row.probe, "FAKE_SSL_FAILS=" + row.failing), row.text) << row.failing;
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--probe")
        return std::printf("%s", runProbe(argv[2]).data()) < 0;
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
