#pragma once

#include "core/fs/TemporaryDirectory.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

/// Certificates made by the openssl program: an authority ("ca.pem"), and what it and others have issued. Each
/// NAME.pem has its NAME.key.
class TlsFiles {
public:
    TlsFiles() {
        const std::string script =
            "set -e; cd " + directory_.path().str() +
            R"(
            new() { openssl ecparam -genkey -name prime256v1 -noout -out $1.key; }
            self() { new $1; openssl req -x509 -new -key $1.key -days 30 -out $1.pem -subj "/CN=$2" \
                -addext "subjectAltName=DNS:localhost,IP:127.0.0.1"; }
            issue() { new $1; openssl req -new -key $1.key -subj "/CN=$1" -out $1.csr
                printf "subjectAltName=$2" > $1.ext
                openssl x509 -req -in $1.csr -CA $4.pem -CAkey $4.key -CAcreateserial -days $3 -extfile $1.ext -out $1.pem; }
            self ca "Test CA"; self otherca "Other CA"; self selfsigned localhost
            issue good DNS:localhost,IP:127.0.0.1 30 ca
            issue second DNS:localhost,IP:127.0.0.1 30 ca
            issue a DNS:a.test 30 ca
            issue expired DNS:localhost,IP:127.0.0.1 -1 ca
            issue wrongca DNS:localhost,IP:127.0.0.1 30 otherca
            : > empty.pem)";
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

/// The openssl program as a peer: s_client or s_server, with lines to its input and its output as text.
class OpensslProgram {
public:
    explicit OpensslProgram(const std::vector<std::string>& arguments) {
        int input[2];
        int output[2];
        EXPECT_EQ(::pipe2(input, O_CLOEXEC) | ::pipe2(output, O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
        ::posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
        ::posix_spawn_file_actions_adddup2(&actions, output[1], STDERR_FILENO);
        std::vector<char*> argv{const_cast<char*>("openssl")};
        for (const std::string& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        EXPECT_EQ(::posix_spawnp(&pid_, "openssl", &actions, nullptr, argv.data(), environ), 0);
        ::posix_spawn_file_actions_destroy(&actions);
        ::close(input[0]);
        ::close(output[1]);
        input_ = input[1];
        output_ = output[0];
        ::fcntl(output_, F_SETFL, O_NONBLOCK);
    }
    ~OpensslProgram() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        ::close(input_);
        ::close(output_);
    }
    OpensslProgram(const OpensslProgram&) = delete;
    OpensslProgram& operator=(const OpensslProgram&) = delete;

    /// Text at the start of a line may be a command: K, R, Q.
    void type(const std::string& text) {
        EXPECT_EQ(::write(input_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    void leave() { ::kill(pid_, SIGKILL); }
    const std::string& output() {
        char buffer[65536];
        for (ssize_t got = 0; (got = ::read(output_, buffer, sizeof(buffer))) > 0;)
            text_.append(buffer, static_cast<std::size_t>(got));
        return text_;
    }
    bool hasWritten(const std::string& text) { return output().find(text) != std::string::npos; }
    /// Of a server that was started with "-accept 0"; waits for it.
    unsigned short port() {
        const std::string mark = "ACCEPT 0.0.0.0:";
        for (int i = 0; i < 1000 && !hasWritten(mark); ++i)
            ::usleep(10000);
        return hasWritten(mark) ? static_cast<unsigned short>(std::atoi(text_.c_str() + text_.find(mark) + mark.size()))
                                : static_cast<unsigned short>(0);
    }

private:
    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    std::string text_;
};
