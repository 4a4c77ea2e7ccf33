#include "core/storage/embeddeddb/DurableFiles_.h"
#include "core/storage/StoreTestSupport.h"
#include "core/storage/embeddeddb/FileNames_.h"
#include "core/storage/embeddeddb/RandomAccessFile_.h"

#include <cerrno>

using namespace znEmbeddedDbDetail;
using Mode = RandomAccessFile_::Mode;

namespace {

bool append(RandomAccessFile_* file, const std::string& bytes) {
    return file->append(bytes.data(), bytes.size());
}

TEST(RandomAccessFile_, AFailedAppendLeavesNothingOrEndsAppending) {
    MemoryFiles files;
    RandomAccessFile_ file(files);
    ASSERT_TRUE(file.open("/d/f", Mode::Append) && append(&file, "first"));
    files.failOperation(1, EIO);
    EXPECT_FALSE(append(&file, "lost"));
    EXPECT_TRUE(file.canAppend());
    EXPECT_EQ(files.content("/d/f"), "first");
    EXPECT_TRUE(append(&file, "second"));
    EXPECT_EQ(files.content("/d/f"), "firstsecond");
    files.setFreeBytes(2);
    EXPECT_FALSE(append(&file, "third")); // short
    EXPECT_EQ(files.content("/d/f"), "firstsecond");
    files.setFreeBytes(100);
    files.stopAt(1); // the truncate fails, too
    EXPECT_FALSE(append(&file, "fourth"));
    files.stopAt(0);
    ZnString error;
    EXPECT_FALSE(file.canAppend());
    EXPECT_FALSE(file.append("x", 1, nullptr, &error));
    EXPECT_EQ(error, "append behind a failure: 0");
}

TEST(RandomAccessFile_, WriteThroughIsDurableWhenItReturns) {
    MemoryFiles files;
    RandomAccessFile_ file(files);
    ASSERT_TRUE(file.open("/d/f", Mode::AppendWriteThrough) && append(&file, "abc"));
    const long before = files.operationCount();
    EXPECT_TRUE(file.flush());
    EXPECT_EQ(files.operationCount(), before);
    files.cutPower();
    EXPECT_EQ(files.content("/d/f"), "abc");
}

TEST(DurableFiles_, AtomicWriteLeavesTheOldOrTheNewWhateverFailsAndWheneverThePowerGoes) {
    const std::string old = "old content";
    const std::string fresh(3000000, 'n');
    const auto prepare = [&](MemoryFiles& files) {
        files.put("/d/f", old);
        files.put("/d/f.tmp", "stale, and longer than what will be written");
    };
    const auto write = [&](MemoryFiles& files) {
        ZnString error;
        ZnString syncError;
        const bool isWritten = writeFileAtomic(files, "/d/f", fresh, &error, &syncError);
        EXPECT_EQ(isWritten, error.isEmpty());
        return isWritten && syncError.isEmpty();
    };
    const auto check = [&](const MemoryFiles& files, bool isPromised) {
        const std::string content = files.content("/d/f");
        EXPECT_TRUE(content == fresh || (!isPromised && content == old)) << content.size() << " bytes";
    };
    breakEveryOperation(prepare, write, check);
    MemoryFiles files;
    ZnString error;
    EXPECT_FALSE(writeFileAtomic(files, "/f", "x", &error));
    EXPECT_EQ(error, "failed to create directory: ");
}

TEST(FileNames_, IdsAreReadFromNamesThatTheStoreWrites) {
    const struct {
        const char* name;
        std::uint64_t id;
    } rows[] = {
        {"WAL-7.log", 7},
        {"/a/WAL-3.b/WAL-12.log", 12},
        {"WAL-18446744073709551615.log", ~std::uint64_t(0)},
        {"WAL-abc.log", 0},
        {"WAL-18446744073709551616.log", 0},
        {"WAL-07.log", 0},
        {"WAL-+7.log", 0},
        {"WAL-7.log.tmp", 0},
        {"", 0},
    };
    for (const auto& row : rows)
        EXPECT_EQ(parseFileId(row.name, kWalPrefix, kWalSuffix), row.id) << row.name;
}

} // namespace
