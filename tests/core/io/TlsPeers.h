#pragma once

#include "core/fs/TemporaryDirectory.h"
#include "support/TestProgram.h"

/// Certificates made by the openssl program: an authority ("ca.pem"), and what it and others have issued. Each
/// NAME.pem has its NAME.key.
class TlsFiles {
public:
    TlsFiles() {
        const std::string script = "set -e; cd " + directory_.path().str() +
                                   R"(
            new() { openssl ecparam -genkey -name prime256v1 -noout -out $1.key; }
            self() { new $1; openssl req -x509 -new -key $1.key -days 30 -out $1.pem -subj "/CN=$2" \
                -addext "subjectAltName=DNS:localhost,IP:127.0.0.1"; }
            issue() { new $1; openssl req -new -key $1.key -subj "/CN=$1" -out $1.csr
                printf "subjectAltName=$2" > $1.ext
                openssl x509 -req -in $1.csr -CA $4.pem -CAkey $4.key -CAcreateserial -days $3 -extfile $1.ext -out $1.pem; }
            self ca "Test CA"; self otherca "Other CA"; self selfsigned localhost
            issue good DNS:localhost,IP:127.0.0.1 30 ca; issue second DNS:localhost,IP:127.0.0.1 30 ca
            issue a DNS:a.test 30 ca; issue expired DNS:localhost,IP:127.0.0.1 -1 ca
            issue wrongca DNS:localhost,IP:127.0.0.1 30 otherca)";
        EXPECT_EQ(std::system(("( " + script + " ) >" + path("log").str() + " 2>&1").c_str()), 0)
            << contentOf(path("log"));
    }
    ZnString path(const std::string& name) const { return directory_.path(name); }
    static const TlsFiles& instance() {
        static const TlsFiles files;
        return files;
    }

private:
    TemporaryDirectory directory_;
};

/// The openssl program as a peer: s_client or s_server. Typed text at the start of a line may be a command: K, R, Q.
class OpensslProgram : public TestProgram {
public:
    explicit OpensslProgram(const std::vector<std::string>& arguments) : TestProgram("openssl", arguments) {
        makeReadsImmediate_();
    }
    const std::string& output() { return text_ += restOfOutput(); }
    bool hasWritten(const std::string& text) { return output().find(text) != std::string::npos; }
    /// Of a server that was started with "-accept 0"; waits for it.
    unsigned short port() {
        const std::string mark = "ACCEPT 0.0.0.0:";
        for (int i = 0; i < 1000 && !hasWritten(mark); ++i)
            ::usleep(10000);
        return static_cast<unsigned short>(hasWritten(mark) ? std::atoi(text_.c_str() + text_.find(mark) + mark.size())
                                                            : 0);
    }

private:
    std::string text_;
};
