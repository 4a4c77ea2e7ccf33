#include "core/storage/embeddeddb/StoreVerifier_.h"
#include "core/storage/StoreViewFixture.h"

#include <cerrno>
#include <functional>
#include <gmock/gmock.h>
#include <random>

using namespace znEmbeddedDbDetail;

namespace {

using testing::HasSubstr;

struct Checked {
    explicit Checked(StoreViewFixture* store, const ZnEmbeddedDbProgress& progress = {})
        : status(verifyStore(store->files, store->paths, *store->view(), ~std::uint64_t(0), std::nullopt, &report,
                             progress)) {}

    ZnEmbeddedDbVerifyReport report;
    Status status;
};

std::unique_ptr<StoreViewFixture> filledStore(std::uint64_t seed) {
    auto store = std::make_unique<StoreViewFixture>();
    std::mt19937_64 random(seed);
    for (int step = 1; step <= 600; ++step) {
        const std::string key = std::to_string(random() % 90);
        if (random() % 4 == 0)
            store->remove(key, random() % 2 == 0);
        else
            store->put(key, std::string(random() % 50, 'v'), {std::to_string(random() % 5)}, random() % 2 == 0);
        if (step % 70 == 0) {
            store->seal();
            store->flush();
        }
        if (step % 100 == 0)
            store->seal();
        if (step == 350)
            store->compact(&store->tables.primaryView, 3);
        if (step == 450)
            store->compact(&store->tables.indexViews["color"], 2);
    }
    while (store->sealed.size() > 1)
        store->flush();
    return store;
}

TEST(StoreVerifier, CountsWhatASoundStoreHolds) {
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        const auto store = filledStore(seed);
        std::vector<std::uint64_t> told;
        const Checked checked(store.get(), [&](std::uint64_t done, std::uint64_t total) {
            EXPECT_LE(done, total);
            told.push_back(total - done);
        });
        EXPECT_EQ(checked.status, kOk);
        EXPECT_EQ(told, std::vector<std::uint64_t>{0}); // a small one: told at its end alone
        EXPECT_EQ(checked.report.liveRecordCount, store->model.size());
        EXPECT_EQ(checked.report.indexEntryCount, store->model.size());
        EXPECT_GT(checked.report.staleIndexEntryCount, 0u);
        EXPECT_GT(checked.report.blobValueCount, 0u);
        EXPECT_GT(checked.report.blobBytes, 20 * checked.report.blobValueCount);
        EXPECT_TRUE(checked.report.orphans.isEmpty());
        std::uint64_t recordCount = 0;
        std::uint64_t byteCount = 0;
        for (const TableList_& list : {store->tables.primaryView, store->tables.indexViews["color"]}) {
            for (const auto& table : list) {
                recordCount += table->meta().recordCount;
                byteCount += store->files.content(table->path()).size();
            }
        }
        EXPECT_EQ(checked.report.recordCount, recordCount);
        EXPECT_EQ(checked.report.tableBytes, byteCount);
        EXPECT_EQ(checked.report.tableCount,
                  store->tables.primaryView.size() + store->tables.indexViews["color"].size());
    }
}

TEST(StoreVerifier, FindsWhatNothingRefersTo) {
    const auto store = filledStore(3);
    const char* paths[] = {"/s/blobs/BLOB-999.dat", "/s/tables/L0-998.sst", "/s/tables/L1-997.sst.tmp",
                           "/s/tmp/L0-996.sst.tmp"};
    for (const char* path : paths)
        store->files.put(path, "left behind");
    const Checked checked(store.get());
    EXPECT_EQ(checked.status, kOk);
    std::vector<ZnString> orphans(checked.report.orphans.begin(), checked.report.orphans.end());
    EXPECT_THAT(orphans, testing::UnorderedElementsAre(paths[0], paths[1], paths[2], paths[3]));
}

void flipLastByte(StoreViewFixture* store, const ZnString& path) {
    std::string bytes = store->files.content(path);
    bytes.back() = static_cast<char>(bytes.back() ^ 1);
    store->files.put(path, bytes);
}

TEST(StoreVerifier, TellsWhatIsWrongAndGoesOn) {
    using Store = StoreViewFixture;
    constexpr auto kDamaged = Status::Corruption;
    constexpr auto kUnread = Status::IoError;
    const struct {
        const char* problem;
        Status::Code code;
        std::uint64_t problemCount;
        std::function<void(Store*)> damage;
    } rows[] = {
        {"L0-1.sst: table footer mismatch", kDamaged, 1,
         [](Store* store) { flipLastByte(store, "/s/tables/L0-1.sst"); }},
        {"L0-3.sst: ", kUnread, 1, [](Store* store) { store->files.remove("/s/tables/L0-3.sst"); }},
        {"L0-1.sst: key \"b\": blob value checksum mismatch: /s/blobs/BLOB-2.dat at 0", kDamaged, 1,
         [](Store* store) { flipLastByte(store, "/s/blobs/BLOB-2.dat"); }},
        {"/s/blobs/BLOB-2.dat", kUnread, 1, [](Store* store) { store->files.remove("/s/blobs/BLOB-2.dat"); }},
        {"L0-1.sst: key \"a\" has sequence 1 and hides the newer one of sequence 4 in L0-4.sst", kDamaged, 2,
         [](Store* store) { std::swap(store->tables.primaryView[0], store->tables.primaryView[1]); }},
        {"L0-4.sst: key \"a\" has sequence 4, which it also has in L0-4.sst", kDamaged, 1,
         [](Store* store) {
             store->tables.primaryView.insert(store->tables.primaryView.begin(), store->tables.primaryView[0]);
         }},
        {"L0-1.sst: key \"b\" is not in index color under \"red\"", kDamaged, 1,
         [](Store* store) { store->tables.indexViews["color"].pop_back(); }},
        {"index key \"no index key\" does not come apart", kDamaged, 1,
         [](Store* store) {
             store->addTable(kIndexTable, 0, {{ZnByteArray("no index key", 12), 9, kInlineRecord, ZnByteArray()}});
         }},
        {"L0-6.sst: index key \"b\\x00\\x01c\" has a value", kDamaged, 1,
         [](Store* store) {
             store->addTable(kIndexTable, 0, {{ZnByteArray("b\0\1c", 4), 9, kInlineRecord, ZnByteArray("value", 5)}});
         }},
        {"L0-1.sst: has keys above the largest that the store looks for", kDamaged, 1,
         [](Store* store) { store->tables.largestPrimaryKey = ZnByteArray("b", 1); }},
        {"L0-4.sst: stands among the tables of another kind", kDamaged, 1,
         [](Store* store) {
             store->tables.indexViews["color"].push_back(store->tables.primaryView[0]);
             store->tables.primaryView.erase(store->tables.primaryView.begin());
         }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.problem);
        Store store; // tables 2 and 3 with blob file 1, then table 4 with 5
        store.put("a", "first", {"red"});
        store.put("b", std::string(100, 'v'), {"red"});
        store.put("c", "last", {});
        store.seal();
        store.flush();
        store.put("a", "second", {"blue"});
        store.seal();
        store.flush();
        ASSERT_EQ(Checked(&store).status, kOk);
        row.damage(&store);
        const Checked checked(&store);
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
