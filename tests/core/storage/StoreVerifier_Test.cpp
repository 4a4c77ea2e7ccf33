#include "core/storage/embeddeddb/StoreVerifier_.h"
#include "core/storage/StoreBench.h"

#include <functional>
#include <gmock/gmock.h>
#include <random>

using namespace znEmbeddedDbDetail;

namespace {

using testing::HasSubstr;

/// The store with these tables, all files of which are read anew.
struct Checked {
    Checked(StoreBench* bench, const TableViews_& tables, const ZnEmbeddedDbProgress& progress = {}) {
        std::uint64_t sequence = 0;
        ReadView_ view = *bench->core().stableView(&sequence);
        view.tables = std::make_shared<TableViews_>(tables);
        view.blobs = std::make_shared<BlobFiles_>(bench->files, "/s/blobs", 2, bench->core().counters);
        status = verifyStore(bench->files, StorePaths_("/s"), view, ~std::uint64_t(0), std::nullopt, &report, progress);
    }

    ZnEmbeddedDbVerifyReport report;
    Status status;
};

std::unique_ptr<StoreBench> filledStore(std::uint64_t seed) {
    auto bench = std::make_unique<StoreBench>();
    std::mt19937_64 random(seed);
    for (int step = 1; step <= 600; ++step) {
        bench->setRetires(random() % 2 == 0);
        const std::string key = std::to_string(random() % 90);
        if (random() % 4 == 0)
            bench->remove(key);
        else
            bench->put(key, std::to_string(random() % 5) + std::string(random() % 70, 'v'));
        if (step % 70 == 0)
            bench->flush();
        if (step % 50 == 0)
            bench->store.snapshot(); // seals the memtable
    }
    EXPECT_EQ(bench->store.collectGarbage(), kOk); // else whole blob files may be without use
    bench->awaitQuiet();
    return bench;
}

TEST(StoreVerifier, CountsWhatASoundStoreHolds) {
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        const auto bench = filledStore(seed);
        const TableViews_ tables = bench->tableViews();
        std::vector<std::uint64_t> told;
        const Checked checked(bench.get(), tables, [&](std::uint64_t done, std::uint64_t total) {
            EXPECT_LE(done, total);
            told.push_back(total - done);
        });
        EXPECT_EQ(checked.status, kOk);
        EXPECT_EQ(told, std::vector<std::uint64_t>{0}); // a small one: told at its end alone
        EXPECT_EQ(checked.report.liveRecordCount, bench->expected.size());
        EXPECT_EQ(checked.report.indexEntryCount, bench->expected.size());
        EXPECT_GT(checked.report.staleIndexEntryCount, 0u);
        EXPECT_GT(checked.report.blobValueCount, 0u);
        EXPECT_GT(checked.report.blobBytes, 40 * checked.report.blobValueCount);
        EXPECT_TRUE(checked.report.orphans.isEmpty());
    }
}

TEST(StoreVerifier, FindsWhatNothingRefersTo) {
    const auto bench = filledStore(3);
    const char* paths[] = {"/s/blobs/BLOB-999.dat", "/s/tables/L0-998.sst", "/s/tables/L1-997.sst.tmp",
                           "/s/tmp/L0-996.sst.tmp"};
    for (const char* path : paths)
        bench->files.put(path, "left behind");
    const Checked checked(bench.get(), bench->tableViews());
    EXPECT_EQ(checked.status, kOk);
    std::vector<ZnString> orphans(checked.report.orphans.begin(), checked.report.orphans.end());
    EXPECT_THAT(orphans, testing::UnorderedElementsAre(paths[0], paths[1], paths[2], paths[3]));
}

void flipLastByte(MemoryFiles& files, const ZnString& path) {
    std::string bytes = files.content(path);
    bytes.back() = static_cast<char>(bytes.back() ^ 1);
    files.put(path, bytes);
}

constexpr auto kDamaged = Status::Corruption;
constexpr auto kUnread = Status::IoError;
const struct {
    const char* problem;
    Status::Code code;
    std::uint64_t problemCount;
    std::function<void(MemoryFiles&, TableViews_&)> damage;
} kRows[] = {
    {"L0-1.sst: table footer mismatch", kDamaged, 1,
     [](auto& files, auto&) { flipLastByte(files, "/s/tables/L0-1.sst"); }},
    {"L0-3.sst: ", kUnread, 1, [](auto& files, auto&) { files.remove("/s/tables/L0-3.sst"); }},
    {"L0-1.sst: key \"b\": blob value checksum mismatch: /s/blobs/BLOB-2.dat at 0", kDamaged, 1,
     [](auto& files, auto&) { flipLastByte(files, "/s/blobs/BLOB-2.dat"); }},
    {"/s/blobs/BLOB-2.dat", kUnread, 1, [](auto& files, auto&) { files.remove("/s/blobs/BLOB-2.dat"); }},
    {"L0-1.sst: key \"a\" has sequence 1 and hides the newer one of sequence 4 in L0-4.sst", kDamaged, 2,
     [](auto&, auto& tables) { std::swap(tables.primaryView[0], tables.primaryView[1]); }},
    {"L0-4.sst: key \"a\" has sequence 4, which it also has in L0-4.sst", kDamaged, 1,
     [](auto&, auto& tables) { tables.primaryView.insert(tables.primaryView.begin(), tables.primaryView[0]); }},
    {"L0-1.sst: key \"b\" is not in index tag under \"v\"", kDamaged, 1,
     [](auto&, auto& tables) { tables.indexViews["tag"].pop_back(); }},
    {"index key \"no index key\" does not come apart", kDamaged, 1,
     [](auto& files, auto& tables) {
         const TableRecord_ record{ZnByteArray("no index key", 12), 9, kInlineRecord, ZnByteArray()};
         tables.indexViews["tag"].push_back(writtenTable(files, 6, {record}, true));
     }},
    {"L0-6.sst: index key \"b\\x00\\x01c\" has a value", kDamaged, 1,
     [](auto& files, auto& tables) {
         const TableRecord_ record{ZnByteArray("b\0\1c", 4), 9, kInlineRecord, ZnByteArray("value", 5)};
         tables.indexViews["tag"].push_back(writtenTable(files, 6, {record}, true));
     }},
};

TEST(StoreVerifier, TellsWhatIsWrongAndGoesOn) {
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.problem);
        StoreBench bench; // tables 1 and 3 with blob file 2, then table 4 with 5
        bench.put("a", "first");
        bench.put("b", std::string(100, 'v'));
        bench.putAndFlush("c", "");
        bench.putAndFlush("a", "second");
        TableViews_ tables = bench.tableViews();
        ASSERT_EQ(Checked(&bench, tables).status, kOk);
        row.damage(bench.files, tables);
        const Checked checked(&bench, tables);
        EXPECT_EQ(checked.status.code(), row.code);
        std::string problems;
        for (const ZnString& problem : checked.report.problems)
            problems += problem.str() + "\n";
        EXPECT_EQ(checked.report.problemCount, row.problemCount) << problems;
        EXPECT_THAT(problems, HasSubstr(row.problem));
        EXPECT_THAT(checked.status.message().str(), HasSubstr(problems.substr(0, problems.find('\n'))));
    }
}

} // namespace
