#pragma once

#include "support/Loopback.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

/// A child process: text to its input, and its standard output and error as text.
class TestProgram {
public:
    TestProgram(const char* path, const std::vector<std::string>& arguments) {
        int input[2];
        int output[2];
        EXPECT_EQ(::pipe2(input, O_CLOEXEC) | ::pipe2(output, O_CLOEXEC), 0);
        std::vector<char*> argv{const_cast<char*>(path)};
        for (const std::string& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(input[0], STDIN_FILENO);
            ::dup2(output[1], STDOUT_FILENO);
            ::dup2(output[1], STDERR_FILENO);
            ::signal(SIGINT, SIG_DFL); // ignored when the test runs in the background of a shell
            ::execvp(path, argv.data());
            ::_exit(127);
        }
        ::close(input[0]);
        ::close(output[1]);
        input_ = input[1];
        output_ = output[0];
    }
    ~TestProgram() {
        if (pid_ > 0) { // one that does not end by itself, or a failed test
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        ::close(input_);
        ::close(output_);
    }
    TestProgram(const TestProgram&) = delete;
    TestProgram& operator=(const TestProgram&) = delete;

    void type(const std::string& text) {
        EXPECT_EQ(::write(input_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
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
        char buffer[65536];
        for (ssize_t got = 0; (got = ::read(output_, buffer, sizeof(buffer))) > 0;)
            rest.append(buffer, static_cast<std::size_t>(got));
        return rest;
    }
    void signal(int number) { ::kill(pid_, number); }
    void pause() {
        signal(SIGSTOP);
        ::waitpid(pid_, nullptr, WUNTRACED);
    }
    void resume() { signal(SIGCONT); }
    /// Waits for its end, which the signal asks for if there is one.
    int exitCode(int signalNumber = 0) {
        signal(signalNumber);
        int status = 0;
        ::waitpid(std::exchange(pid_, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    long residentKib() const {
        std::ifstream file("/proc/" + std::to_string(pid_) + "/statm");
        long pages[2] = {}; // in all, and resident
        file >> pages[0] >> pages[1];
        return pages[1] * (::sysconf(_SC_PAGESIZE) / 1024);
    }

protected:
    /// From now on restOfOutput gives what there is, and waits for no end.
    void makeReadsImmediate_() { ::fcntl(output_, F_SETFL, O_NONBLOCK); }

private:
    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
};

/// A port that nobody listened on a moment ago.
inline std::string freePort() {
    unsigned short port = 0;
    ::close(listenOnLoopback(&port));
    return std::to_string(port);
}
