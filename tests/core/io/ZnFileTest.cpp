#include "core/io/ZnFile.h"

#include "core/fs/TemporaryDirectory.h"

#include <cstdlib>
#include <stdexcept>

namespace {

using OpenMode = ZnFile::OpenMode;

TEST(ZnFile, WritesAppendsAndReadsBack) {
    const TemporaryDirectory directory;
    const std::string block(100000, 'b');
    ZnFile file(directory.file("file", "old content"));
    ASSERT_TRUE(file.openBinary(OpenMode::Write));
    EXPECT_TRUE(file.write(ZnString("one\n")));
    file.close();
    ASSERT_TRUE(file.open(OpenMode::Append));
    EXPECT_TRUE(file.write(ZnByteArray(std::string_view(block))));
    EXPECT_EQ(contentOf(directory.path("file")), "one\n" + block) << "a write goes through to the system";
    EXPECT_THROW(file.read(1), std::runtime_error);
    file.close();
    EXPECT_THROW(file.seek(0), std::runtime_error);

    ASSERT_TRUE(file.open(OpenMode::Read));
    EXPECT_EQ(file.read(4), "one\n");
    EXPECT_EQ(file.readAll(), block);
    file.seek(2);
    EXPECT_EQ(file.read(1000000).size(), block.size() + 2) << "less only at the end";
    file.seek(0); // works at the end
    EXPECT_EQ(file.read(3), "one");
    EXPECT_FALSE(file.write(ZnString("x")));
}

TEST(ZnFile, OpensOnlyFilesAndMakesNewOnesOnce) {
    const TemporaryDirectory directory;
    const std::string existing = directory.file("file", "content").str();
    const std::pair<std::string, bool> rows[] = {{existing, true},
                                                 {directory.path().str() + "\\file", true},
                                                 {directory.path("none").str(), false},
                                                 {directory.path().str(), false},
                                                 {existing + std::string("\0x", 2), false}};
    for (const auto& [path, opens] : rows) {
        ZnFile file{ZnString(path)};
        EXPECT_EQ(file.open(OpenMode::Read), opens) << path;
        EXPECT_EQ(file.readAll(), opens ? "content" : "") << path;
    }
    EXPECT_FALSE(ZnFile(ZnString(existing)).createNew());
    ZnFile file(directory.path("new"));
    ASSERT_TRUE(file.createNew());
    EXPECT_TRUE(file.writeBuffered("abc") && file.flush());
    const std::string list = directory.path("list").str(); // of what a child process inherits
    ASSERT_EQ(std::system(("ls -l /proc/self/fd > " + list).c_str()), 0);
    EXPECT_EQ(contentOf(list).find(directory.path("new").str()), std::string::npos);
    EXPECT_EQ(contentOf(directory.path("new")), "abc");
}

} // namespace
