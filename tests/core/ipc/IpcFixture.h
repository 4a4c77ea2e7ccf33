#pragma once

#include "core/ipc/Names.h"
#include "core/types/ZnString.h"
#include "support/ForkedProcess.h"

#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <vector>

/// A domain of one test; no other test or run has the same.
inline ZnString testDomain() {
    static int count = 0;
    return ZnString("test-") + ZnString::number(::getpid()) + "-" + ZnString::number(++count);
}

/// Names of shared objects that hold `text`.
inline std::vector<std::string> sharedObjects(const ZnString& text) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
        if (entry.path().filename().string().find(text.view()) != std::string::npos)
            names.push_back(entry.path().filename().string());
    }
    return names;
}

/// A shared object as the system shows it, without the code under test.
class RawObject {
public:
    explicit RawObject(const ZnString& name) {
        const int descriptor = ::shm_open(name.data(), O_RDWR, 0);
        struct stat status = {};
        EXPECT_EQ(::fstat(descriptor, &status), 0) << name.str();
        byteCount_ = static_cast<std::size_t>(status.st_size);
        mode_ = status.st_mode;
        bytes_ = static_cast<char*>(::mmap(nullptr, byteCount_, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0));
        ::close(descriptor);
    }
    ~RawObject() { ::munmap(bytes_, byteCount_); }
    RawObject(const RawObject&) = delete;
    RawObject& operator=(const RawObject&) = delete;

    template <typename T>
    T at(std::size_t offset) const {
        T value;
        std::memcpy(&value, bytes_ + offset, sizeof(value));
        return value;
    }
    template <typename T>
    void set(std::size_t offset, T value) {
        std::memcpy(bytes_ + offset, &value, sizeof(value));
    }
    std::string text(std::size_t offset, std::size_t byteCount) const { return {bytes_ + offset, byteCount}; }
    std::size_t byteCount() const { return byteCount_; }
    mode_t mode() const { return mode_; }

private:
    char* bytes_ = nullptr;
    std::size_t byteCount_ = 0;
    mode_t mode_ = 0;
};

/// A forked child. `body` gets a function that tells the parent, and gives the exit code.
class Child {
public:
    using Body = std::function<int(const std::function<void()>& tell)>;

    explicit Child(const Body& body)
        : process_([&] {
              ::alarm(60); // never outlives a test that has gone wrong
              return body([this] { (void)!::write(pipe_.ends[1], "x", 1); });
          }) {
        pipe_.closeEnd(1);
    }

    /// Until the child tells; false when it has ended instead.
    bool awaitTold() {
        char byte = 0;
        return ::read(pipe_.ends[0], &byte, 1) == 1;
    }
    void awaitStop() { EXPECT_TRUE(process_.awaitStop()); }
    void signal(int number) { process_.signal(number); }
    /// Waits for its end: the exit code, or the signal that ended it below 0.
    int end() { return process_.exitCode(); }
    std::uint32_t pid() const { return static_cast<std::uint32_t>(process_.pid()); }

private:
    ProcessPipe pipe_;
    ForkedProcess process_;
};
