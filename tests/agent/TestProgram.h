#pragma once

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <spawn.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

/// A child process with its standard output and error as text.
class TestProgram {
public:
    TestProgram(const char* path, const std::vector<std::string>& arguments) {
        int pipes[2];
        EXPECT_EQ(::pipe2(pipes, O_CLOEXEC), 0);
        output_ = pipes[0];
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, pipes[1], STDOUT_FILENO);
        ::posix_spawn_file_actions_adddup2(&actions, pipes[1], STDERR_FILENO);
        std::vector<char*> argv{const_cast<char*>(path)};
        for (const std::string& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        // A test that runs in the background of a shell has SIGINT ignored, and would pass that on.
        posix_spawnattr_t attributes;
        ::posix_spawnattr_init(&attributes);
        sigset_t interrupts;
        sigemptyset(&interrupts);
        sigaddset(&interrupts, SIGINT);
        ::posix_spawnattr_setsigdefault(&attributes, &interrupts);
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
        EXPECT_EQ(::posix_spawnp(&pid_, path, &actions, &attributes, argv.data(), environ), 0);
        ::posix_spawnattr_destroy(&attributes);
        ::posix_spawn_file_actions_destroy(&actions);
        ::close(pipes[1]);
    }
    ~TestProgram() {
        if (pid_ > 0) { // a failed test
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        ::close(output_);
    }
    TestProgram(const TestProgram&) = delete;
    TestProgram& operator=(const TestProgram&) = delete;

    std::string readLine() {
        std::string line;
        char c = 0;
        while (::read(output_, &c, 1) == 1 && c != '\n')
            line += c;
        return line;
    }
    /// What it has written since; after its end.
    std::string restOfOutput() {
        std::string rest;
        char buffer[4096];
        for (ssize_t got = 0; (got = ::read(output_, buffer, sizeof(buffer))) > 0;)
            rest.append(buffer, static_cast<std::size_t>(got));
        return rest;
    }
    void signal(int number) { ::kill(pid_, number); }
    void terminate() { signal(SIGTERM); }
    void pause() {
        signal(SIGSTOP);
        ::waitpid(pid_, nullptr, WUNTRACED);
    }
    void resume() { signal(SIGCONT); }
    /// Waits for its end.
    int exitCode() {
        int status = 0;
        ::waitpid(std::exchange(pid_, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    long residentKib() const {
        std::ifstream file("/proc/" + std::to_string(pid_) + "/statm");
        long totalPages = 0;
        long residentPages = 0;
        file >> totalPages >> residentPages;
        return residentPages * (::sysconf(_SC_PAGESIZE) / 1024);
    }

private:
    pid_t pid_ = -1;
    int output_ = -1;
};

/// A port that nobody listened on a moment ago.
inline std::string freePort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t addressBytes = sizeof(address);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), addressBytes);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &addressBytes);
    ::close(fd);
    return std::to_string(ntohs(address.sin_port));
}
