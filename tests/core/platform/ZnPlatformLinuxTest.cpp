#include "core/platform/ZnPlatformLinux.h"

#include "core/fs/TemporaryDirectory.h"

#include <algorithm>
#include <sys/stat.h>
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

class ZnLinuxPlatformTest : public ::testing::Test {
protected:
    const TemporaryDirectory directory_;
    ZnDirPlatform& dirs_ = *znDirPlatform();
    ZnFilePlatform& files_ = *znFilePlatform();
};

TEST_F(ZnLinuxPlatformTest, NormalPathsAreAbsoluteAndPlain) {
    constexpr const char* kRows[][2] = {{"", ""},
                                        {"///", "/"},
                                        {"\\a\\b\\", "/a/b"},
                                        {"/a//./b/../c/", "/a/c"},
                                        {"/../..", "/"},
                                        {"/a/..b/...", "/a/..b/..."}};
    for (const auto& [path, normal] : kRows)
        EXPECT_EQ(dirs_.normalizePath(path), normal) << path;
    EXPECT_EQ(dirs_.normalizePath("x/./y"), dirs_.currentPath() + "x/y");
}

TEST_F(ZnLinuxPlatformTest, ListsByKindAndFilter) {
    directory_.file("One.sst", "");
    directory_.file("two.sst.tmp", "");
    directory_.file("sub/three.SST", "");
    fs::create_directory_symlink(directory_.path().str(), directory_.path("sub/loop").str());
    constexpr int kBoth = ZnDirPlatform::kFiles | ZnDirPlatform::kDirectories;

    EXPECT_EQ(sorted(dirs_.entryList(directory_.path(), kBoth)), (Names{"One.sst", "sub", "two.sst.tmp"}));
    EXPECT_EQ(sorted(dirs_.entryList(directory_.path(), ZnDirPlatform::kDirectories)), Names{"sub"});
    EXPECT_EQ(sorted(dirs_.entryList(directory_.path(), {"*.SST", "[broken"}, kBoth)), Names{"One.sst"});
    EXPECT_TRUE(dirs_.entryList(directory_.path("none"), kBoth).isEmpty());
    EXPECT_EQ(sorted(dirs_.findFiles(directory_.path(), {"*.sst"})),
              (Names{directory_.path("One.sst").str(), directory_.path("sub/three.SST").str()}));
}

TEST_F(ZnLinuxPlatformTest, RemovesTreesButNothingBehindLinks) {
    const ZnString kept = directory_.file("kept/file", "content");
    directory_.file("tree/a/b/c/file", "");
    for (const char* link : {"tree/a/link", "link"})
        fs::create_directory_symlink(directory_.path("kept").str(), directory_.path(link).str());

    EXPECT_TRUE(dirs_.removeRecursively(directory_.path("tree")));
    EXPECT_FALSE(dirs_.exists(directory_.path("tree")));
    for (const ZnString& path : {directory_.path("link") + "/", kept, directory_.path("none")})
        EXPECT_FALSE(dirs_.removeRecursively(path)) << path;
    EXPECT_EQ(contentOf(kept), "content");
}

TEST_F(ZnLinuxPlatformTest, CopiesTrees) {
    directory_.file("from/a/one", "1");
    directory_.file("from/two", "2");
    directory_.file("to/two", "older and longer");
    EXPECT_TRUE(dirs_.copyDirectory(directory_.path("from"), directory_.path("to")));
    EXPECT_EQ(contentOf(directory_.path("to/a/one")), "1");
    EXPECT_EQ(contentOf(directory_.path("to/two")), "2");
    EXPECT_FALSE(dirs_.copyDirectory(directory_.path("none"), directory_.path("other")));
    EXPECT_FALSE(dirs_.copyDirectory(directory_.path("from"), directory_.path("from/a/inner")));
    EXPECT_FALSE(dirs_.exists(directory_.path("from/a/inner")));
}

TEST_F(ZnLinuxPlatformTest, CopiesFilesWithoutLosingThem) {
    const std::string content(200000, 'x');
    const ZnString source = directory_.file("source", content);
    const ZnString target = directory_.path("target");
    fs::create_hard_link(source.str(), directory_.path("alias").str());
    ::mkfifo(directory_.path("pipe").data(), 0600);

    EXPECT_TRUE(files_.copy(source, target, false));
    EXPECT_FALSE(files_.copy(source, target, false));
    EXPECT_TRUE(files_.copy(source, target, true));
    EXPECT_FALSE(files_.copy(source, directory_.path("alias"), true));
    EXPECT_FALSE(files_.copy(directory_.path("pipe"), target, true));
    EXPECT_FALSE(files_.copy(directory_.path(), target, true));
    EXPECT_EQ(contentOf(source), content);
    EXPECT_EQ(contentOf(target), content);
    EXPECT_FALSE(files_.isFile(directory_.path("pipe")));
    EXPECT_TRUE(files_.copy("/proc/self/cmdline", target, true)); // sendfile does not take it
    EXPECT_EQ(contentOf(target), contentOf("/proc/self/cmdline"));
}

} // namespace
