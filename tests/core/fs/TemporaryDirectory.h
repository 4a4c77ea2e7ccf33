#pragma once

#include "core/types/ZnString.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

/// A directory of one test's own, removed with everything in it.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::string name = (std::filesystem::temp_directory_path() / "zn-test-XXXXXX").string();
        EXPECT_NE(::mkdtemp(name.data()), nullptr);
        path_ = std::filesystem::canonical(name);
    }
    ~TemporaryDirectory() {
        std::error_code error;
        std::filesystem::remove_all(path_, error);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    ZnString path(const std::string& name = std::string()) const {
        return ZnString(name.empty() ? path_.string() : (path_ / name).string());
    }
    /// Makes the file and the directories above it.
    ZnString file(const std::string& name, const std::string& content) const {
        std::filesystem::create_directories((path_ / name).parent_path());
        std::ofstream(path_ / name, std::ios::binary) << content;
        return path(name);
    }

private:
    std::filesystem::path path_;
};

inline std::string contentOf(const ZnString& path) {
    std::ifstream file(path.str(), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}
