#include "core/io/ZnFile.h"

#include "core/fs/TemporaryDirectory.h"

#include <cstdlib>
#include <stdexcept>

namespace {

using OpenMode = ZnFile::OpenMode;

TEST(ZnFile, WritesAppendsAndReadsBack) {
    const TemporaryDirectory directory;
    const std::string block(100000, 'b');
    ZnFile file(directory.path("file"));
    ASSERT_TRUE(file.openBinary(OpenMode::Write));
    EXPECT_TRUE(file.write(ZnString("one\n")));
    file.close();
    ASSERT_TRUE(file.open(OpenMode::Append));
    EXPECT_TRUE(file.write(ZnByteArray(std::string_view(block))));
    EXPECT_EQ(contentOf(directory.path("file")), "one\n" + block) << "a write goes through to the system";
    EXPECT_THROW(file.read(1), std::runtime_error);
    EXPECT_EQ(file.readAll(), "");
    file.close();
    EXPECT_THROW(file.seek(0), std::runtime_error);

    ASSERT_TRUE(file.open(OpenMode::Read));
    EXPECT_EQ(file.read(4), "one\n");
    EXPECT_EQ(file.readAll(), block);
    file.seek(2);
    EXPECT_EQ(file.read(1000000).size(), block.size() + 2) << "less only at the end";
    file.seek(0); // works behind the end
    char buffer[3];
    EXPECT_EQ(file.readInto(buffer, sizeof(buffer)), 3u);
    EXPECT_EQ(std::string(buffer, 3), "one");
    EXPECT_FALSE(file.write(ZnString("x")));
}

TEST(ZnFile, OpensOnlyFiles) {
    const TemporaryDirectory directory;
    const std::string existing = directory.file("file", "content").str();
    const std::pair<std::string, bool> rows[] = {
        {existing, true}, {directory.path().str() + "\\file", true}, {directory.path("none").str(), false},
        {directory.path().str(), false}, {"", false}, {existing + std::string("\0x", 2), false}};
    for (const auto& [path, opens] : rows) {
        ZnFile file{ZnString(path)};
        EXPECT_EQ(file.open(OpenMode::Read), opens) << path;
        EXPECT_EQ(file.isOpen(), opens) << path;
        EXPECT_EQ(file.readAll(), opens ? "content" : "") << path;
    }
}

TEST(ZnFile, ANewFileIsMadeOnceAndNoChildProcessInheritsIt) {
    const TemporaryDirectory directory;
    ZnFile file(directory.path("file"));
    ASSERT_TRUE(file.createNew());
    EXPECT_TRUE(file.writeBuffered("abc") && file.flush());
    EXPECT_FALSE(ZnFile(directory.path("file")).createNew());
    const std::string list = directory.path("list").str();
    ASSERT_EQ(std::system(("ls -l /proc/self/fd > " + list).c_str()), 0);
    EXPECT_EQ(contentOf(list).find(directory.path("file").str()), std::string::npos);
    EXPECT_EQ(contentOf(directory.path("file")), "abc");
}

} // namespace
