#include "core/io/ZnFile.h"

#include "core/fs/TemporaryDirectory.h"

#include <fcntl.h>
#include <stdexcept>

namespace {

using OpenMode = ZnFile::OpenMode;

TEST(ZnFile, WritesAppendsAndReadsBack) {
    const TemporaryDirectory directory;
    const std::string block(100000, 'b');
    ZnFile file(directory.path("file"));
    ASSERT_TRUE(file.openBinary(OpenMode::Write));
    EXPECT_TRUE(file.write(ZnString("one\n")));
    EXPECT_TRUE(file.write(ZnByteArray()));
    file.close();
    EXPECT_FALSE(file.isOpen());
    ASSERT_TRUE(file.open(OpenMode::Append));
    EXPECT_TRUE(file.write(ZnByteArray(std::string_view(block))));
    EXPECT_EQ(contentOf(directory.path("file")), "one\n" + block) << "a write goes through to the system";
    file.close();

    ASSERT_TRUE(file.open(OpenMode::Read));
    EXPECT_EQ(file.read(4), "one\n");
    EXPECT_EQ(file.readAll(), block);
    EXPECT_EQ(file.readAll(), "");
    file.seek(2);
    EXPECT_EQ(file.read(3), "e\nb");
    EXPECT_EQ(file.read(1000000).size(), block.size() - 1) << "less only at the end";
    file.seek(0); // works behind the end
    char buffer[3];
    EXPECT_EQ(file.readInto(buffer, sizeof(buffer)), 3u);
    EXPECT_EQ(std::string(buffer, 3), "one");
}

TEST(ZnFile, OpensOnlyFiles) {
    const TemporaryDirectory directory;
    const std::string existing = directory.file("file", "content").str();
    struct Row {
        const char* name;
        std::string path;
        bool opens;
    };
    for (const Row& row : {Row{"file", existing, true}, {"backslash", directory.path().str() + "\\file", true},
                           {"missing", directory.path("none").str(), false}, {"directory", directory.path().str(), false},
                           {"empty", "", false}, {"text behind a NUL", existing + std::string("\0x", 2), false}}) {
        SCOPED_TRACE(row.name);
        ZnFile file{ZnString(row.path)};
        EXPECT_EQ(file.open(OpenMode::Read), row.opens);
        EXPECT_EQ(file.isOpen(), row.opens);
        EXPECT_EQ(file.readAll(), row.opens ? "content" : "");
    }
}

TEST(ZnFile, ChildProcessesInheritNoFileAndANewOneIsMadeOnce) {
    const TemporaryDirectory directory;
    const ZnString path = directory.path("file");
    ZnFile file(path);
    ASSERT_TRUE(file.createNew());
    EXPECT_TRUE(file.writeBuffered("abc"));
    EXPECT_TRUE(file.flush());
    EXPECT_EQ(contentOf(path), "abc");
    EXPECT_FALSE(ZnFile(path).createNew());
    ZnFile reader(path);
    ASSERT_TRUE(reader.open(OpenMode::Read));
    int openCount = 0;
    for (int descriptor = 0; descriptor < 256; ++descriptor) {
        const std::filesystem::path link = "/proc/self/fd/" + std::to_string(descriptor);
        std::error_code error;
        if (std::filesystem::read_symlink(link, error) != path.str())
            continue;
        ++openCount;
        EXPECT_NE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
    }
    EXPECT_EQ(openCount, 2);
}

TEST(ZnFile, MisuseOfTheModeFailsInTheStream) {
    const TemporaryDirectory directory;
    ZnFile file(directory.file("file", "content"));
    EXPECT_THROW(file.seek(0), std::runtime_error);
    ASSERT_TRUE(file.open(OpenMode::Read));
    EXPECT_FALSE(file.write(ZnString("x")));
    file.close();
    ASSERT_TRUE(file.open(OpenMode::Append));
    EXPECT_THROW(file.read(1), std::runtime_error);
    EXPECT_EQ(file.readAll(), "");
    EXPECT_EQ(contentOf(directory.path("file")), "content");
}

} // namespace
