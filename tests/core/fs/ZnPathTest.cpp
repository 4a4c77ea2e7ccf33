#include "core/fs/ZnPath.h"

#include "core/fs/TemporaryDirectory.h"
#include "core/fs/ZnDir.h"
#include "core/platform/ZnDirPlatform.h"

namespace {

TEST(ZnPath, ParentIsWhatStandsBeforeTheLastSlash) {
    struct Row {
        const char* path;
        const char* parent;
    };
    for (const Row& row : {Row{"/a/b/c", "/a/b"}, {"/a/b/c//", "/a/b"}, {"\\a\\b\\", "/a"}, {"/a", ""}, {"/", ""},
                           {"", ""}, {"/a/b/..", ""}, {"/a/./b", "/a"}}) {
        SCOPED_TRACE(row.path);
        EXPECT_EQ(parentPath(row.path), row.parent);
    }
}

TEST(ZnPath, JoinsInNormalForm) {
    struct Row {
        const char* base;
        const char* name;
        const char* joined;
    };
    for (const Row& row : {Row{"", "x/../y", "x/../y"}, {"b/", "", "b/"}, {"/a", "b", "/a/b"}, {"\\a\\", "b\\c", "/a/b/c"},
                           {"/a", "../b", "/b"}, {"/a/", "/b", "/a/b"}}) {
        SCOPED_TRACE(testing::Message() << row.base << " + " << row.name);
        EXPECT_EQ(joinPath(row.base, row.name), row.joined);
    }
}

TEST(ZnDir, HoldsOnlyDirectories) {
    const TemporaryDirectory directory;
    const ZnString file = directory.file("file", "");
    ZnDir dir;
    EXPECT_FALSE(dir.setPath(file));
    EXPECT_EQ(dir.path(), "");
    EXPECT_TRUE(dir.setPath(directory.path() + "//."));
    EXPECT_EQ(dir.path(), directory.path() + "/");
    EXPECT_FALSE(dir.setPath(directory.path("none")));
    EXPECT_EQ(dir.path(), directory.path() + "/");
}

TEST(ZnDir, MakesPathsOnRequest) {
    const TemporaryDirectory directory;
    directory.file("file", "");
    EXPECT_FALSE(ZnDir::mkpathAt("", true));
    EXPECT_TRUE(ZnDir::mkpathAt(directory.path("x/../a/b"), true));
    EXPECT_TRUE(znDirPlatform()->isDirectory(directory.path("a/b")));
    EXPECT_FALSE(ZnDir::mkpathAt(directory.path("file/b"), false));
}

} // namespace
