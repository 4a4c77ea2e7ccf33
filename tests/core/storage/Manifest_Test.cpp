#include "core/storage/embeddeddb/Manifest_.h"
#include "core/storage/StoreTestSupport.h"

#include <cerrno>

using namespace znEmbeddedDbDetail;

namespace {

ManifestState_ goldenState() {
    ManifestState_ state;
    state.manifestId = 3;
    state.maxSequence = 42;
    state.nextTableId = 5;
    state.tables.push_back({kPrimaryTable, 0, 2, 7, 42, 4, 3, "L0-2.sst", ""});
    state.tables.push_back({kIndexTable, 1, 4, 7, 41, 2, 0, "L1-4.sst", "color"});
    return state;
}

TEST(Manifest_, IsWrittenAndReadByteForByte) {
    MemoryFiles files;
    ManifestState_ state = goldenState();
    ASSERT_EQ(writeManifest(files, "/s", &state), kOk);
    EXPECT_EQ(state.manifestId, 4u);
    EXPECT_EQ(files.content("/s/MANIFEST-3.dbm"), golden("MANIFEST-3.dbm"));
    EXPECT_EQ(files.content("/s/CURRENT"), golden("CURRENT"));
    std::uint64_t id = 0;
    ManifestState_ found;
    ASSERT_EQ(readCurrent(files, "/s", &id), kOk);
    ASSERT_EQ(readManifest(files, "/s", id, &found), kOk);
    EXPECT_EQ(found, goldenState());
    EXPECT_EQ(encodeManifest(ManifestState_()).view(),
              R"({"activeWalId": 1,"manifestId": 0,"maxSequence": 0,"nextTableId": 1,"nextWalId": 2,)"
              R"("replayFromWalId": 1,"tables": []})");
}

TEST(Manifest_, RefusesWhatNoStoreWrites) {
    const struct {
        const char* replaced;
        const char* by;
        const char* error;
    } rows[] = {
        {R"("maxSequence": 42,"nextTableId")", R"("maxSequence": 41,"nextTableId")",
         "sequences or record count out of range of table \"L0-2.sst\""},
        {R"("nextTableId": 5)", R"("nextTableId": 4)", "id out of range of table \"L1-4.sst\""},
        {R"("nextTableId": 5)", R"("nextTableId": -5)", "no valid number \"nextTableId\""},
        {R"("nextTableId": 5)", R"("nextTableId": 18446744073709551615)", "no valid number \"nextTableId\""},
        {R"("nextTableId": 5,)", "", "no valid number \"nextTableId\""},
        {R"("nextWalId": 2)", R"("nextWalId": 1)", "out of range: \"activeWalId\""},
        {R"("replayFromWalId": 1)", R"("replayFromWalId": 2)", "out of range: \"replayFromWalId\""},
        {R"("kind": 1)", R"("kind": 3)", "no valid number \"kind\""},
        {R"("kind": 1)", R"("kind": 2)", "kind and index name do not belong together of table \"L0-2.sst\""},
        {R"("level": 0)", R"("level": 1)", "level and id do not belong to table \"L0-2.sst\""},
        {R"("color")", R"("true")", "kind and index name do not belong together of table \"L1-4.sst\""},
        {R"("L1-4.sst")", R"(5)", "no valid text \"fileName\""},
        {R"("tables": [)", R"("tables": [7,)", "no object in \"tables\""},
        {R"("tables": [)", R"("table": [)", "no array \"tables\""},
    };
    for (const auto& row : rows) {
        std::string text = golden("MANIFEST-3.dbm");
        ASSERT_NE(text.find(row.replaced), std::string::npos) << row.replaced;
        text.replace(text.find(row.replaced), std::string(row.replaced).size(), row.by);
        ManifestState_ state;
        ZnString error;
        EXPECT_FALSE(decodeManifest(text, &state, &error)) << row.by;
        EXPECT_EQ(error, row.error);
    }
    ManifestState_ twice = goldenState();
    twice.tables.push_back(twice.tables.front());
    ZnString error;
    EXPECT_FALSE(decodeManifest(encodeManifest(twice).view(), &twice, &error));
    EXPECT_EQ(error, "listed twice: table \"L0-2.sst\"");
}

TEST(Manifest_, CurrentNamesAWholeManifestWhateverFailsAndWheneverThePowerGoes) {
    const auto prepare = [](MemoryFiles& files) {
        ManifestState_ state;
        ASSERT_TRUE(writeManifest(files, "/s", &state).isOk());
    };
    const auto write = [](MemoryFiles& files) {
        ManifestState_ next = goldenState();
        next.manifestId = 1;
        ZnString syncError;
        const Status status = writeManifest(files, "/s", &next, &syncError);
        EXPECT_EQ(next.manifestId, status.isOk() ? 2u : 1u);
        return status.isOk() && syncError.isEmpty();
    };
    const auto check = [](MemoryFiles& files, bool isPromised) {
        std::uint64_t id = 99;
        ManifestState_ found;
        ASSERT_EQ(readCurrent(files, "/s", &id), kOk);
        ASSERT_EQ(readManifest(files, "/s", id, &found), kOk);
        EXPECT_TRUE(id == 1 || (id == 0 && !isPromised));
        EXPECT_EQ(found.tables.size(), id == 1 ? 2u : 0u);
    };
    breakEveryOperation(prepare, write, check);
}

TEST(Manifest_, MissingFilesAreToldFromUnreadableOnes) {
    MemoryFiles files;
    std::uint64_t id = 0;
    ManifestState_ state;
    EXPECT_EQ(readCurrent(files, "/s", &id),
              Status(Status::NotFound, "CreateFileW failed: 2 (No such file or directory): /s/CURRENT"));
    EXPECT_EQ(readManifest(files, "/s", 3, &state).code(), Status::Corruption);
    files.put("/s/MANIFEST-4.dbm", golden("MANIFEST-3.dbm"));
    EXPECT_EQ(readManifest(files, "/s", 4, &state).message(), "manifest bears another number: /s/MANIFEST-4.dbm");
    files.failOperation(1, EACCES);
    EXPECT_EQ(readManifest(files, "/s", 4, &state).code(), Status::IoError);
}

} // namespace
