#include "core/platform/ZnPlatformLinux.h"

#include "core/fs/TemporaryDirectory.h"

#include <algorithm>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

Names sorted(const ZnList<ZnString>& list) {
    Names names;
    for (const ZnString& name : list)
        names.push_back(name.str());
    std::sort(names.begin(), names.end());
    return names;
}

TEST(ZnLinuxDirPlatform, NormalPathsAreAbsoluteAndPlain) {
    struct Row {
        const char* path;
        const char* normal;
    };
    const Row rows[] = {
        {"", ""},
        {"/", "/"},
        {"///", "/"},
        {"/a/b", "/a/b"},
        {"\\a\\b\\", "/a/b"},
        {"/a//./b/", "/a/b"},
        {"/a/../b", "/b"},
        {"/../..", "/"},
        {"/a/..b/...", "/a/..b/..."},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.path);
        EXPECT_EQ(znDirPlatform()->normalizePath(row.path), row.normal);
    }
    const ZnString current = znDirPlatform()->currentPath();
    EXPECT_TRUE(current.endsWith("/"));
    EXPECT_EQ(znDirPlatform()->normalizePath("x/./y"), current + "x/y");
    EXPECT_EQ(znDirPlatform()->absolutePath("."), current.mid(0, static_cast<int>(current.size()) - 1));
}

TEST(ZnLinuxDirPlatform, ListsByKindAndFilter) {
    const TemporaryDirectory directory;
    directory.file("One.sst", "");
    directory.file("two.sst.tmp", "");
    directory.file("sub/three.SST", "");
    fs::create_directory_symlink(directory.path().str(), directory.path("sub/loop").str());
    ZnDirPlatform* platform = znDirPlatform();
    constexpr int kBoth = ZnDirPlatform::kFiles | ZnDirPlatform::kDirectories;

    EXPECT_EQ(sorted(platform->entryList(directory.path(), kBoth)), (Names{"One.sst", "sub", "two.sst.tmp"}));
    EXPECT_EQ(sorted(platform->entryList(directory.path(), ZnDirPlatform::kDirectories)), Names{"sub"});
    EXPECT_EQ(sorted(platform->entryList(directory.path("sub"), ZnDirPlatform::kFiles)), Names{"three.SST"});
    EXPECT_EQ(sorted(platform->entryList(directory.path(), {"*.SST", "[broken"}, kBoth)), Names{"One.sst"});
    EXPECT_TRUE(platform->entryList(directory.path(), {"[broken"}, kBoth).isEmpty());
    EXPECT_TRUE(platform->entryList(directory.path("none"), kBoth).isEmpty());
    EXPECT_EQ(sorted(platform->findFiles(directory.path(), {"*.sst"})),
              (Names{directory.path("One.sst").str(), directory.path("sub/three.SST").str()}));
}

TEST(ZnLinuxDirPlatform, MakesPaths) {
    const TemporaryDirectory directory;
    directory.file("file", "content");
    struct Row {
        const char* name;
        bool made;
    };
    for (const Row& row : {Row{"a/b/c", true}, {"a/b/c", true}, {"a\\d", true}, {"file/below", false}}) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(znDirPlatform()->mkpath(directory.path(row.name)), row.made);
        EXPECT_EQ(znDirPlatform()->isDirectory(directory.path(row.name)), row.made);
    }
    EXPECT_FALSE(znDirPlatform()->mkpath(""));
    EXPECT_FALSE(znDirPlatform()->mkpath(ZnString((directory.path("nul").str() + '\0') + "x")));
    EXPECT_FALSE(znDirPlatform()->exists(directory.path("nul")));
}

TEST(ZnLinuxDirPlatform, RemovesTreesButNothingBehindLinks) {
    const TemporaryDirectory directory;
    const ZnString kept = directory.file("kept/file", "content");
    directory.file("tree/a/b/c/file", "");
    fs::create_directory_symlink(directory.path("kept").str(), directory.path("tree/a/link").str());
    fs::create_directory_symlink(directory.path("kept").str(), directory.path("link").str());

    EXPECT_TRUE(znDirPlatform()->removeRecursively(directory.path("tree")));
    EXPECT_FALSE(znDirPlatform()->exists(directory.path("tree")));
    EXPECT_FALSE(znDirPlatform()->removeRecursively(directory.path("link") + "/"));
    EXPECT_FALSE(znDirPlatform()->removeRecursively(kept));
    EXPECT_FALSE(znDirPlatform()->removeRecursively(directory.path("none")));
    EXPECT_EQ(contentOf(kept), "content");
}

TEST(ZnLinuxDirPlatform, CopiesTrees) {
    const TemporaryDirectory directory;
    directory.file("from/a/one", "1");
    directory.file("from/two", "2");
    directory.file("to/two", "older and longer");
    EXPECT_TRUE(znDirPlatform()->copyDirectory(directory.path("from"), directory.path("to")));
    EXPECT_EQ(contentOf(directory.path("to/a/one")), "1");
    EXPECT_EQ(contentOf(directory.path("to/two")), "2");
    EXPECT_FALSE(znDirPlatform()->copyDirectory(directory.path("none"), directory.path("other")));
    EXPECT_FALSE(znDirPlatform()->copyDirectory(directory.path("from"), directory.path("from/a/inner")));
    EXPECT_FALSE(znDirPlatform()->exists(directory.path("from/a/inner")));
}

TEST(ZnLinuxFilePlatform, CopiesFilesWithoutLosingThem) {
    const TemporaryDirectory directory;
    const ZnString source = directory.file("source", std::string(200000, 'x'));
    const ZnString target = directory.path("target");
    fs::create_hard_link(source.str(), directory.path("alias").str());
    ::mkfifo(directory.path("pipe").data(), 0600);
    ZnFilePlatform* platform = znFilePlatform();

    EXPECT_TRUE(platform->copy(source, target, false));
    EXPECT_FALSE(platform->copy(source, target, false));
    EXPECT_TRUE(platform->copy(source, target, true));
    EXPECT_EQ(contentOf(target), contentOf(source));
    EXPECT_FALSE(platform->copy(source, directory.path("alias"), true));
    EXPECT_FALSE(platform->copy(directory.path("pipe"), target, true));
    EXPECT_FALSE(platform->copy(directory.path(), target, true));
    EXPECT_EQ(contentOf(source).size(), 200000u);
    EXPECT_EQ(contentOf(target).size(), 200000u);
    EXPECT_TRUE(platform->isFile(target));
    EXPECT_FALSE(platform->isFile(directory.path("pipe")));
}

TEST(ZnLinuxFilePlatform, SetsAllTimesButThatOfCreation) {
    const TemporaryDirectory directory;
    const ZnString file = directory.file("file", "");
    ZnFilePlatform* platform = znFilePlatform();
    long long creation = -1;
    long long lastAccess = -1;
    long long lastWrite = -1;
    EXPECT_TRUE(platform->setLastWriteTime(file, 1000000000));
    EXPECT_TRUE(platform->setLastAccessTime(file, 1100000000));
    EXPECT_FALSE(platform->setCreationTime(file, 1000));
    EXPECT_FALSE(platform->setAllFileTimes(file, 1000, 1, 1));
    ASSERT_TRUE(platform->getFileMetadata(file, &creation, &lastAccess, &lastWrite));
    EXPECT_EQ(lastWrite, 1000000000);
    EXPECT_EQ(lastAccess, 1100000000);
    EXPECT_TRUE(platform->setAllFileTimes(file, creation, 1200000000, -5));
    ASSERT_TRUE(platform->getFileMetadata(file, &creation, &lastAccess, &lastWrite));
    EXPECT_EQ(lastWrite, -5);
    EXPECT_FALSE(platform->getFileMetadata(directory.path("none"), &creation, &lastAccess, &lastWrite));
}

TEST(ZnLinuxFilePlatform, KeepsMetadataWhereTheVolumeCan) {
    const TemporaryDirectory directory;
    const ZnString file = directory.file("file", "content");
    ZnFilePlatform* platform = znFilePlatform();
    const bool supported = ::setxattr(file.data(), "user.probe", "", 0, 0) == 0;
    EXPECT_EQ(platform->writeMetadata(file, "note", "a longer value"), supported);
    EXPECT_EQ(platform->writeMetadata(file, "note", "größe"), supported);
    EXPECT_EQ(platform->readMetadata(file, "note"), supported ? "größe" : "");
    if (supported) {
        std::string manyChars;
        for (int i = 0; i < 1500; ++i)
            manyChars += "ö";
        EXPECT_TRUE(platform->writeMetadata(file, "note", manyChars));
        EXPECT_EQ(platform->readMetadata(file, "note"), manyChars.substr(0, 2048));
    }
    EXPECT_EQ(platform->readMetadata(file, "other"), "");
    EXPECT_EQ(contentOf(file), "content");
}

} // namespace
