#pragma once

#include "support/ForkedProcess.h"
#include "support/Loopback.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

/// Another program as a child process: text to its input, and its standard output and error as text.
class TestProgram {
public:
    TestProgram(const char* path, const std::vector<std::string>& arguments)
        : process_([&] { return execute_(path, arguments); }) {
        input_.closeEnd(0);
        output_.closeEnd(1);
    }

    void type(const std::string& text) {
        EXPECT_EQ(::write(input_.ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    std::string readLine() {
        std::string line;
        char c = 0;
        while (::read(output_.ends[0], &c, 1) == 1 && c != '\n')
            line += c;
        return line;
    }
    /// What it has written since; after its end.
    std::string restOfOutput() {
        std::string rest;
        char buffer[65536];
        for (ssize_t got = 0; (got = ::read(output_.ends[0], buffer, sizeof(buffer))) > 0;)
            rest.append(buffer, static_cast<std::size_t>(got));
        return rest;
    }
    void signal(int number) { process_.signal(number); }
    void pause() { process_.pause(); }
    void resume() { process_.resume(); }
    /// Waits for its end, which the signal asks for if there is one.
    int exitCode(int signalNumber = 0) { return process_.exitCode(signalNumber); }
    long residentKib() const { return process_.residentKib(); }

protected:
    /// From now on restOfOutput gives what there is, and waits for no end.
    void makeReadsImmediate_() { ::fcntl(output_.ends[0], F_SETFL, O_NONBLOCK); }

private:
    int execute_(const char* path, const std::vector<std::string>& arguments) const {
        std::vector<char*> argv{const_cast<char*>(path)};
        for (const std::string& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        ::dup2(input_.ends[0], STDIN_FILENO);
        ::dup2(output_.ends[1], STDOUT_FILENO);
        ::dup2(output_.ends[1], STDERR_FILENO);
        ::signal(SIGINT, SIG_DFL); // ignored when the test runs in the background of a shell
        ::execvp(path, argv.data());
        return 127;
    }

    ProcessPipe input_;
    ProcessPipe output_;
    ForkedProcess process_;
};

inline std::string freePort() {
    return std::to_string(freeLoopbackPort());
}
