// The log's writer with files, pipes and disks that fail.

#include "agent/McpLogWriter.h"
#include "core/fs/TemporaryDirectory.h"
#include "support/LogCapture.h"
#include "support/OnThreads.h"

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string lossLine(std::uint64_t lostCount) {
    return "lost " + std::to_string(lostCount) + "\n";
}

class McpLogWriterTest : public ::testing::Test {
protected:
    void SetUp() override { std::filesystem::create_directory(folder_); }
    void start(std::uint64_t maxFileBytes = 1 << 20) {
        writer_ = std::make_unique<McpLogWriter>(lossLine, ZnString(path_), maxFileBytes);
        ZnString problem;
        EXPECT_TRUE(writer_->start(&problem)) << problem;
    }
    bool waitForContent(const std::string& content) {
        return waitUntil([&] { return contentOf(ZnString(path_)) == content; });
    }

    const TemporaryDirectory directory_;
    const std::filesystem::path folder_ = directory_.path("folder").str();
    const std::string path_ = (folder_ / "log").string();
    std::unique_ptr<McpLogWriter> writer_;
};

TEST_F(McpLogWriterTest, FullFilesAreKeptUnderOtherNamesAndHoldWholeLines) {
    std::ofstream(path_) << "from before\n";
    start(100);
    std::string expected = "from before\n";
    for (int number = 0; number < 40; ++number) {
        const std::string line = std::string(static_cast<std::size_t>(number % 7), 'x') + std::to_string(number) + "\n";
        writer_->append(line);
        expected += line;
    }
    writer_->append(std::string(150, 'y') + "\n"); // larger than a file may be
    writer_->append("end\n");
    expected += std::string(150, 'y') + "\nend\n";
    writer_->stop();
    std::string kept;
    for (const char* name : {".3", ".2", ".1", ""}) {
        const std::string content = contentOf(ZnString(path_ + name));
        EXPECT_TRUE(content.size() <= 100 || content == std::string(150, 'y') + "\n") << name;
        EXPECT_TRUE(content.ends_with('\n')) << name;
        kept += content;
    }
    EXPECT_TRUE(expected.ends_with(kept));
    EXPECT_GT(kept.size(), 250U);
    EXPECT_FALSE(std::filesystem::exists(path_ + ".4"));
    struct stat status = {};
    ::stat(path_.c_str(), &status);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(McpLogWriterTest, GoesOnWhenTheFileOrItsFolderIsBack) {
    LogCapture log;
    start();
    writer_->append("1\n");
    EXPECT_TRUE(waitForContent("1\n"));
    std::filesystem::remove(path_);
    writer_->append("2\n");
    EXPECT_TRUE(waitForContent("2\n"));
    std::filesystem::remove_all(folder_);
    writer_->append("3\n");
    EXPECT_TRUE(waitUntil([&] { return log.countOf("No such file or directory") == 1; }));
    writer_->append("4\n");
    std::filesystem::create_directory(folder_);
    EXPECT_TRUE(waitForContent("3\n4\n"));
    EXPECT_EQ(writer_->droppedCount(), 0U);
}

/// What cannot be written waits up to a bound, the rest is counted, and neither callers nor the end wait for it.
TEST_F(McpLogWriterTest, FloodsEndAtTheBound) {
    struct Row {
        const char* name;
        bool isPipe;
        const char* logged;
    };
    for (const Row& row : {Row{"pipe", true, "bytes were not written"}, Row{"full disk", false, "No space left"}}) {
        SCOPED_TRACE(row.name);
        LogCapture log;
        std::filesystem::remove(path_);
        int reader = -1;
        if (row.isPipe) {
            ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
            reader = ::open(path_.c_str(), O_RDONLY | O_NONBLOCK);
        } else {
            std::filesystem::create_symlink("/dev/full", path_);
        }
        start();
        constexpr std::size_t kCount = 100000;
        const std::string line = std::string(99, 'x') + "\n";
        const auto began = std::chrono::steady_clock::now();
        for (std::size_t count = 0; count < kCount; ++count)
            writer_->append(line);
        const std::size_t dropped = writer_->droppedCount();
        EXPECT_NEAR(static_cast<double>(dropped), kCount - McpLogQueue::kMaxBytes / 100.0, 3000);
        if (row.isPipe) { // what is read makes room
            std::string got;
            char buffer[65536];
            EXPECT_TRUE(waitUntil([&] {
                const ssize_t count = ::read(reader, buffer, sizeof(buffer));
                got.append(buffer, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
                return got.find("lost") != std::string::npos;
            }));
            EXPECT_NE(got.find("x\nlost " + std::to_string(dropped) + "\n"), std::string::npos);
            for (std::size_t count = 0; count < kCount; ++count)
                writer_->append(line);
        }
        writer_->stop();
        EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(8));
        EXPECT_TRUE(waitUntil([&] { return log.countOf(row.logged) == 1; }));
        if (reader >= 0)
            ::close(reader);
    }
}

TEST_F(McpLogWriterTest, WhatCannotBeOpenedIsSaid) {
    std::filesystem::create_directory(folder_ / "log.d");
    ::mkfifo((folder_ / "pipe").c_str(), 0600);
    const std::pair<const char*, const char*> rows[] = {
        {"log.d", "Is a directory"}, {"none/log", "No such file or directory"}, {"pipe", "Nobody reads this pipe"}};
    for (const auto& [name, expected] : rows) {
        McpLogWriter writer(lossLine, ZnString((folder_ / name).string()), 1000);
        ZnString problem;
        EXPECT_FALSE(writer.start(&problem));
        EXPECT_EQ(problem, expected);
    }
}

} // namespace
