#include "core/fs/ZnPath.h"

#include "core/fs/TemporaryDirectory.h"
#include "core/fs/ZnDir.h"
#include "core/platform/ZnDirPlatform.h"

namespace {

TEST(ZnPath, ParentsAndJoinedNamesAreNormal) {
    constexpr const char* kParents[][2] = {{"/a/b/c//", "/a/b"}, {"\\a\\b\\", "/a"}, {"/a", ""}, {"", ""}};
    for (const auto& [path, parent] : kParents)
        EXPECT_EQ(parentPath(path), parent) << path;
    constexpr const char* kJoined[][3] = {{"", "x/../y", "x/../y"},
                                          {"b/", "", "b/"},
                                          {"\\a\\", "b\\c", "/a/b/c"},
                                          {"/a", "../b", "/b"},
                                          {"/a/", "/b", "/a/b"}};
    for (const auto& [base, name, joined] : kJoined)
        EXPECT_EQ(joinPath(base, name), joined) << base << " + " << name;
}

TEST(ZnDir, HoldsOnlyDirectoriesAndMakesThem) {
    const TemporaryDirectory directory;
    const ZnString file = directory.file("file", "");
    ZnDir dir;
    EXPECT_TRUE(dir.setPath(directory.path() + "//."));
    EXPECT_FALSE(dir.setPath(file));
    EXPECT_EQ(dir.path(), directory.path() + "/");
    EXPECT_FALSE(ZnDir::mkpathAt("", true));
    EXPECT_TRUE(ZnDir::mkpathAt(directory.path("x/../a/b"), true));
    EXPECT_TRUE(znDirPlatform()->isDirectory(directory.path("a/b")));
    EXPECT_FALSE(ZnDir::mkpathAt(directory.path("file/b"), false));
}

} // namespace
