#include "core/platform/ZnStorageFiles.h"
#include "core/fs/TemporaryDirectory.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

constexpr ZnStorageFiles::Access kWriting{true, true, false, false};

TEST(ZnStorageFiles, OpensRegularFilesOnlyAndTellsWhichAreNew) {
    const TemporaryDirectory directory;
    ZnStorageFiles& files = znStorageFiles();
    std::unique_ptr<ZnStorageFile> file;
    bool isNew = false;
    const ZnString path = directory.path("a");
    EXPECT_EQ(files.open(path, {}, &file, &isNew), ENOENT);
    EXPECT_EQ(files.open(path, kWriting, &file, &isNew), 0);
    EXPECT_TRUE(isNew);
    EXPECT_EQ(files.open(path, kWriting, &file, &isNew), 0);
    EXPECT_FALSE(isNew);
    EXPECT_EQ(files.open(directory.path(), {}, &file, &isNew), EISDIR);
    ASSERT_EQ(::mkfifo(directory.path("pipe").data(), 0600), 0);
    EXPECT_EQ(files.open(directory.path("pipe"), {}, &file, &isNew), EINVAL);
    EXPECT_EQ(files.open(directory.path("a") + ZnString("\0b", 2), {}, &file, &isNew), ENOENT);
    ASSERT_EQ(::symlink("nowhere/x", directory.path("link").data()), 0);
    EXPECT_EQ(files.open(directory.path("link"), kWriting, &file, &isNew), ENOENT); // and does not loop
}

TEST(ZnStorageFiles, MovesMapsAndListsWhatWasWritten) {
    const TemporaryDirectory directory;
    ZnStorageFiles& files = znStorageFiles();
    ASSERT_EQ(files.makePath(directory.path("x/y")), 0);
    EXPECT_EQ(files.makePath(directory.path("x/y")), 0);
    directory.file("plain", "");
    EXPECT_EQ(files.makePath(directory.path("plain")), ENOTDIR);
    std::unique_ptr<ZnStorageFile> file;
    bool isNew = false;
    std::size_t moved = 0;
    std::uint64_t sizeBytes = 0;
    ASSERT_EQ(files.open(directory.path("x/from"), kWriting, &file, &isNew), 0);
    EXPECT_EQ(file->writeAt(2, "abcd", 4, &moved), 0);
    EXPECT_EQ(file->truncate(5), 0);
    EXPECT_EQ(file->sync(), 0);
    char buffer[8] = {};
    EXPECT_EQ(file->readAt(1, buffer, sizeof(buffer), &moved), 0);
    EXPECT_EQ(std::string_view(buffer, moved), std::string_view("\0abc", 4));
    EXPECT_EQ(file->readAt(~std::uint64_t(0) - 3, buffer, 8, &moved), EINVAL);
    EXPECT_EQ(files.rename(directory.path("x/from"), directory.path("x/to")), 0);
    EXPECT_EQ(files.syncDirectory(directory.path("x")), 0);
    EXPECT_EQ(files.syncDirectory(directory.path("none")), ENOENT);
    std::unique_ptr<ZnStorageMapping> mapping;
    ASSERT_EQ(files.map(directory.path("x/to"), &mapping, &sizeBytes), 0);
    EXPECT_EQ(std::string_view(mapping->data(), sizeBytes), std::string_view("\0\0abc", 5));
    EXPECT_EQ(files.map(directory.path("plain"), &mapping, &sizeBytes), EINVAL);
    EXPECT_EQ(sizeBytes, 0u);
    std::vector<ZnString> names;
    EXPECT_EQ(files.list(directory.path("x"), &names), 0); // without the directory "y"
    EXPECT_THAT(names, testing::ElementsAre(ZnString("to")));
}

TEST(ZnStorageFiles, ALockIsRefusedAlsoWithinTheProcess) {
    const TemporaryDirectory directory;
    std::unique_ptr<ZnStorageLock> first;
    std::unique_ptr<ZnStorageLock> second;
    EXPECT_EQ(znStorageFiles().lock(directory.path("LOCK"), &first), 0);
    EXPECT_EQ(znStorageFiles().lock(directory.path("LOCK"), &second), EWOULDBLOCK);
    first.reset();
    EXPECT_EQ(znStorageFiles().lock(directory.path("LOCK"), &second), 0);
}

} // namespace
