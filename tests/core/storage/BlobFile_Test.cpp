#include "core/storage/embeddeddb/BlobFile_.h"
#include "core/storage/StoreTestSupport.h"

using namespace znEmbeddedDbDetail;

namespace {

constexpr std::string_view kValue = "a value that is kept outside";

ValueEntry_ entryOf(const BlobRef_& blob) {
    ValueEntry_ entry;
    entry.blob = blob;
    return entry;
}

TEST(BlobFile_, HoldsTheValuesAndNothingElse) {
    MemoryFiles files;
    BlobWriter_ writer(files);
    BlobRef_ first;
    BlobRef_ second;
    ASSERT_TRUE(writer.open("/s/blobs", 3).isOk());
    EXPECT_FALSE(blobFileHasData(files, "/s/blobs", 3));
    ASSERT_TRUE(writer.append("other", &first).isOk() && writer.append(kValue, &second).isOk());
    ASSERT_TRUE(writer.flush().isOk());
    files.cutPower();
    EXPECT_EQ(files.content("/s/blobs/BLOB-3.dat"), golden("BLOB-3.dat"));
    EXPECT_TRUE(blobFileHasData(files, "/s/blobs", 3));
    EXPECT_EQ(second, (BlobRef_{true, 3, 5, 28, 0x7E95C0A3, 0}));
    ValueEntry_ entry = entryOf(second);
    ASSERT_EQ(readBlobValue(files, "/s/blobs", &entry), kOk);
    EXPECT_TRUE(entry.inlineValue);
    EXPECT_EQ(entry.value.view(), kValue);
}

TEST(BlobFile_, APlaceThatIsNoneIsNamedAndTakesNoMemory) {
    MemoryFiles files;
    files.put("/s/blobs/BLOB-3.dat", golden("BLOB-3.dat"));
    using Place = std::pair<std::uint64_t, std::uint32_t>;
    for (const auto& [offset, size] : {Place(5, 0xFFFFFFFF), Place(~std::uint64_t(0), 28)}) {
        ValueEntry_ entry = entryOf({true, 3, offset, size, 0, 0});
        EXPECT_EQ(readBlobValue(files, "/s/blobs", &entry).message(),
                  "blob value beyond the end of its file: /s/blobs/BLOB-3.dat at " + ZnString::number(offset));
    }
}

TEST(BlobFile_, LargeAndManyValuesKeepTheirPlaces) {
    MemoryFiles files;
    BlobWriter_ writer(files);
    ASSERT_TRUE(writer.open("/s/blobs", 1).isOk());
    std::string all;
    RandomAccessFile_ file(files);
    ASSERT_TRUE(file.open("/s/blobs/BLOB-1.dat", RandomAccessFile_::Mode::ReadOnly)); // before it grows
    for (const std::size_t byteCount : {400000u, 400000u, 400000u, 0u, 1048576u, 7u, 3000000u, 1048575u, 1u, 1u}) {
        const std::string value(byteCount, static_cast<char>('a' + all.size() % 26));
        BlobRef_ blob;
        ZnByteArray read;
        ASSERT_TRUE(writer.append(value, &blob).isOk());
        EXPECT_EQ(blob.offset, all.size());
        all += value;
        if (byteCount == 7) {
            ASSERT_TRUE(writer.flush().isOk() && readBlob(file, blob, &read).isOk());
        }
    }
    ASSERT_TRUE(writer.flush().isOk());
    EXPECT_EQ(files.content("/s/blobs/BLOB-1.dat") == all, true);
}

} // namespace
