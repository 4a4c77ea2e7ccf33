// A store that is read beside its writer: bringing it up to date, and learning when that is due.

#include "core/ipc/Names.h"
#include "core/storage/StoreModel.h"
#include "core/storage/embeddeddb/Manifest_.h"
#include "support/LogCapture.h"
#include "support/LoopFixture.h"
#include "support/OnThreads.h"

#include <atomic>
#include <fcntl.h>
#include <mutex>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <utility>

namespace {

const std::string kTail(60, '.'); // makes a value one for a blob file

/// Other files, with something done in front of an operation, one at a time: tables are opened on several threads.
class HookedFiles final : public ZnStorageFiles {
public:
    explicit HookedFiles(ZnStorageFiles& files) : files_(files) {}

    std::function<void(const ZnString& path)> onOpen;
    std::function<void(const ZnString& path)> onSync; // of a directory

    int open(const ZnString& path, Access access, std::unique_ptr<ZnStorageFile>* file, bool* isNew) override {
        if (onOpen) {
            const std::lock_guard lock(hookMutex_);
            onOpen(path);
        }
        return files_.open(path, access, file, isNew);
    }
    int syncDirectory(const ZnString& path) override {
        if (onSync)
            onSync(path);
        return files_.syncDirectory(path);
    }
    int map(const ZnString& path, std::unique_ptr<ZnStorageMapping>* mapping, std::uint64_t* sizeBytes) override {
        return files_.map(path, mapping, sizeBytes);
    }
    int rename(const ZnString& from, const ZnString& to) override { return files_.rename(from, to); }
    int remove(const ZnString& path) override { return files_.remove(path); }
    int makePath(const ZnString& path) override { return files_.makePath(path); }
    int list(const ZnString& path, std::vector<ZnString>* names) override { return files_.list(path, names); }
    int lock(const ZnString& path, std::unique_ptr<ZnStorageLock>* lock) override { return files_.lock(path, lock); }

private:
    ZnStorageFiles& files_;
    std::mutex hookMutex_;
};

class StoreRefresh : public ::testing::Test {
protected:
    StoreRefresh() { EXPECT_EQ(writer_.open("/s", quietOptions()), kOk); }
    void put(std::string_view key, const std::string& value) { ASSERT_EQ(putTagged(writer_, key, value), kOk); }

    LogCapture log_;
    MemoryFiles files_;
    HookedFiles readerFiles_{files_};
    ZnEmbeddedDb writer_{files_};
    ZnEmbeddedDb reader_{readerFiles_};
};

TEST_F(StoreRefresh, ShowsTablesAndLogAndReadsNothingTwice) {
    EXPECT_EQ(reader_.refresh().code(), Status::NotAvailable);
    EXPECT_EQ(writer_.refresh().code(), Status::InvalidArgument);
    put("a", "A" + kTail);
    ASSERT_EQ(writer_.flush(), kOk);
    put("b", "B1");
    ASSERT_EQ(reader_.open("/s", quietOptions(true)), kOk);
    StoreContent expected = {{"a", "A" + kTail}, {"b", "B1"}};
    EXPECT_EQ(contentOf(reader_), expected);
    put("c", "C1"); // in the log
    put("b", "A2");
    ASSERT_EQ(writer_.remove("nothing"), kOk);
    EXPECT_EQ(contentOf(reader_), expected);
    const std::vector<ZnString> before = files_.paths();
    std::set<ZnString> opened;
    const auto refresh = [&] {
        opened.clear();
        readerFiles_.onOpen = [&](const ZnString& path) { opened.insert(path); };
        ASSERT_EQ(reader_.refresh(), kOk);
        readerFiles_.onOpen = nullptr;
    };
    refresh();
    expected["c"] = "C1";
    expected["b"] = "A2";
    EXPECT_EQ(contentOf(reader_), expected);
    EXPECT_EQ(reader_.stats().lastCommittedSequence, 5U);
    for (const ZnString& path : opened)
        EXPECT_FALSE(path.contains("/tables/") || path.contains("/blobs/")) << path;
    EXPECT_EQ(files_.paths(), before);

    ASSERT_EQ(writer_.flush(), kOk); // the log into tables, of which the new ones alone are read
    put("d", "D" + kTail);
    ASSERT_EQ(writer_.flush(), kOk);
    ASSERT_EQ(writer_.remove("a"), kOk);
    refresh();
    expected.erase("a");
    expected["d"] = "D" + kTail;
    EXPECT_EQ(contentOf(reader_), expected);
    for (const ZnString& path : before)
        EXPECT_FALSE(path.contains("/tables/") && opened.count(path) != 0) << path;
    EXPECT_EQ(reader_.verify(), kOk);
    EXPECT_EQ(reader_.refresh(), kOk); // with no news
    EXPECT_EQ(contentOf(reader_), expected);
    reader_.close();
    EXPECT_EQ(reader_.refresh().code(), Status::NotAvailable);
}

/// A refresh that begins again must end with the values of the new blob file, whose old one has gone: a store that is
/// opened, and one that is refreshed, with references known and unknown.
TEST_F(StoreRefresh, GarbageCollectedBetweenManifestAndBlobFilesIsNoticed) {
    int version = 0;
    const auto rewrite = [&] { // the old blob file goes
        put("a", "A" + std::to_string(++version) + kTail);
        ASSERT_EQ(writer_.compact(), kOk);
    };
    for (const bool isRefresh : {false, true})
        for (const bool verifyFilters : {false, true}) {
            ZnEmbeddedDbOptions options = quietOptions(true);
            options.verifyFilters = verifyFilters;
            SCOPED_TRACE((isRefresh ? "refresh" : "open") + std::string(verifyFilters ? "" : ", references unknown"));
            put("b", "B" + kTail);
            rewrite();
            if (isRefresh) {
                ASSERT_EQ(reader_.open("/s", options), kOk);
                rewrite(); // else it would share all blob files
            }
            bool isDone = false;
            readerFiles_.onOpen = [&](const ZnString& path) {
                if (path.contains("/blobs/") && !std::exchange(isDone, true))
                    rewrite();
            };
            ASSERT_EQ(isRefresh ? reader_.refresh() : reader_.open("/s", options), kOk);
            readerFiles_.onOpen = nullptr;
            EXPECT_TRUE(isDone);
            rewrite(); // what the view refers to has gone, and is open
            EXPECT_EQ(valueOf(reader_, "a"), "A" + std::to_string(version - 1) + kTail);
            EXPECT_EQ(valueOf(reader_, "b"), "B" + kTail);
            reader_.close();
        }
    EXPECT_EQ(log_.countOf("BLOB-"), 0); // nothing was lost
}

TEST_F(StoreRefresh, FailureLeavesTheViewAsItWas) {
    put("a", "A1" + kTail);
    ASSERT_EQ(writer_.flush(), kOk);
    ASSERT_EQ(reader_.open("/s", quietOptions(true)), kOk);
    const StoreContent before = contentOf(reader_);
    put("a", "A2" + kTail);
    ASSERT_EQ(writer_.flush(), kOk);
    ASSERT_EQ(writer_.collectGarbage(), kOk); // nothing in the background changes CURRENT from here on
    const std::string current = files_.content("/s/CURRENT");
    const auto mendPointer = [&] { files_.put("/s/CURRENT", current); };
    const struct {
        const char* name;
        std::function<void()> breakIt;
        std::function<void()> mend;
    } rows[] = {
        {"no such manifest", [&] { files_.put("/s/CURRENT", "MANIFEST-999.dbm\n"); }, mendPointer},
        {"no pointer", [&] { files_.remove("/s/CURRENT"); }, mendPointer},
        {"disk", [&] { readerFiles_.onOpen = [&](const ZnString&) { files_.failOperation(1, EIO); }; },
         [&] { files_.failOperation(0, 0); }},
        {"a writer that is always quicker",
         [&] {
             readerFiles_.onOpen = [&](const ZnString& path) {
                 put("a", "A3" + kTail);
                 EXPECT_TRUE(!path.contains("/blobs/") || writer_.compact().isOk());
             };
         },
         [] {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        row.breakIt();
        const Status status = reader_.refresh();
        EXPECT_TRUE(!status.isOk() && status.message().contains("/s")) << status.message();
        readerFiles_.onOpen = nullptr;
        row.mend();
        EXPECT_EQ(contentOf(reader_), before);
    }
    ASSERT_EQ(reader_.refresh(), kOk);
    EXPECT_EQ(contentOf(reader_), contentOf(writer_));
}

int countDeletedButOpen() {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        const std::string target = std::filesystem::read_symlink(entry.path(), error).string();
        count += target.find("/BLOB-") != std::string::npos && target.ends_with(" (deleted)") ? 1 : 0;
    }
    return count;
}

TEST(StoreRefreshOnDisk, ViewsOfBeforeStayAndLetGoOfTheirFiles) {
    TemporaryDirectory directory;
    ZnEmbeddedDb writer;
    ZnEmbeddedDb reader;
    ASSERT_EQ(writer.open(directory.path("s"), quietOptions()), kOk);
    StoreContent then;
    for (int number = 10; number < 30; ++number) {
        then["k" + std::to_string(number)] = "A" + std::to_string(number) + (number % 2 == 0 ? kTail : "");
        ASSERT_EQ(putTagged(writer, "k" + std::to_string(number), then["k" + std::to_string(number)]), kOk);
    }
    ASSERT_EQ(writer.flush(), kOk);
    then["in the log alone"] = "C1";
    ASSERT_EQ(putTagged(writer, "in the log alone", "C1"), kOk);
    ASSERT_EQ(reader.open(directory.path("s"), quietOptions(true)), kOk);
    ZnEmbeddedDbSnapshotPtr snapshot = reader.snapshot();
    std::optional<ZnEmbeddedDbIterator> records = reader.scan();
    StoreContent seen;
    const auto take = [&](int count) {
        for (; count > 0 && records->valid(); --count, records->next())
            seen[std::string(records->key())] = std::string(records->value());
    };
    take(5);
    for (const auto& [key, value] : then)
        ASSERT_EQ(putTagged(writer, key, "B" + value.substr(1)), kOk);
    ASSERT_EQ(writer.compact(), kOk); // tables, blob file and log of the reader have gone
    const StoreContent now = contentOf(writer);
    writer.close();
    EXPECT_EQ(contentOf(reader), then);
    EXPECT_EQ(reader.verify(), kOk); // that they have gone is no damage
    ASSERT_EQ(reader.refresh(), kOk);
    EXPECT_EQ(contentOf(reader), now);
    EXPECT_EQ(countDeletedButOpen(), 1);
    take(100);
    EXPECT_EQ(records->status(), kOk);
    EXPECT_EQ(seen, then);
    records.reset();
    EXPECT_EQ(valueOf(reader, "k10", snapshot), then["k10"]);
    snapshot = nullptr;
    EXPECT_EQ(countDeletedButOpen(), 0);
}

TEST_F(StoreRefresh, ManyThreadsRefreshAndRead) {
    constexpr int kRounds = 60;
    put("a", "A0");
    put("b", "A0");
    ASSERT_EQ(reader_.open("/s", quietOptions(true)), kOk);
    std::atomic<int> writtenRound{0};
    onThreads(4, [&](int thread) {
        for (int round = 1, last = 0; round <= kRounds; ++round) {
            if (thread == 0) { // both keys together, sometimes in a blob file
                const std::string value = "A" + std::to_string(round) + (round % 3 == 0 ? kTail : "");
                ZnEmbeddedDbBatch batch;
                batch.put("a", value, tagsOf(value));
                batch.put("b", value, tagsOf(value));
                EXPECT_EQ(writer_.write(batch), kOk);
                EXPECT_TRUE(round % 10 != 0 || writer_.compact().isOk());
                EXPECT_TRUE(round % 4 != 0 || writer_.flush().isOk());
                writtenRound = round;
            } else {
                const int atLeast = writtenRound;
                EXPECT_EQ(thread == 3 ? kOk : reader_.refresh(), kOk);
                const StoreContent content = shown(reader_.scan());
                ASSERT_TRUE(content.size() == 2 && content.at("a") == content.at("b"));
                const int seen = std::stoi(content.at("a").substr(1));
                EXPECT_GE(seen, thread == 3 ? last : std::max(last, atLeast));
                last = seen;
            }
        }
    });
    EXPECT_EQ(reader_.refresh(), kOk);
    EXPECT_EQ(contentOf(reader_), contentOf(writer_));
}

// --- what opening leaves

TEST(StoreOpening, AllNewDirectoriesAboveAStoreLast) {
    TemporaryDirectory directory;
    HookedFiles files(znStorageFiles());
    std::set<ZnString> synced;
    files.onSync = [&](const ZnString& path) { synced.insert(path); };
    ASSERT_EQ(ZnEmbeddedDb(files).open(directory.path("x/y/z"), quietOptions()), kOk);
    for (const char* path : {"", "x", "x/y", "x/y/z"})
        EXPECT_EQ(synced.count(directory.path(path)), 1U) << path;
}

// --- watching

class StoreWatch : public LoopFixture {
protected:
    StoreWatch() {
        std::filesystem::create_directory_symlink(directory_.path("s").str(), directory_.path("link").str());
    }
    static ZnEmbeddedDbOptions announcing() {
        ZnEmbeddedDbOptions options = quietOptions();
        options.notifyChanges = true;
        return options;
    }
    std::uint64_t manifestInForce() const {
        std::uint64_t id = 0;
        EXPECT_EQ(znEmbeddedDbDetail::readCurrent(znStorageFiles(), directory_.path("s"), &id), kOk);
        return id;
    }
    std::function<void(const ZnEmbeddedDbChange&)> recorder() {
        return [this](const ZnEmbeddedDbChange& change) {
            last_ = change;
            ++count_;
        };
    }

    LogCapture log_;
    TemporaryDirectory directory_;
    ZnEmbeddedDb writer_;
    ZnEmbeddedDb reader_;
    ZnEmbeddedDbChange last_;
    int count_ = 0;
};

TEST_F(StoreWatch, TellsOfEveryCommitUnderEveryNameOfTheDirectory) {
    EXPECT_EQ(reader_.watch(recorder()).code(), Status::NotAvailable);
    ASSERT_EQ(writer_.open(directory_.path("s"), announcing()), kOk);
    ASSERT_EQ(reader_.open(directory_.path("link") + "/../link/", quietOptions(true)), kOk);
    std::string seen;
    ASSERT_EQ(reader_.watch([&](const ZnEmbeddedDbChange& change) {
        EXPECT_EQ(reader_.refresh(), kOk);
        seen = valueOf(reader_, "a");
        recorder()(change);
    }),
              kOk);
    for (const char* value : {"A1", "A2", "A3"}) {
        const int before = count_;
        ASSERT_EQ(putTagged(writer_, "a", value), kOk);
        ASSERT_EQ(writer_.flush(), kOk);
        ASSERT_EQ(putTagged(writer_, "a", value + kTail), kOk); // after it
        ASSERT_TRUE(runUntil([&] { return count_ > before; }));
        EXPECT_EQ(last_.lastCommittedSequence + 1, writer_.stats().lastCommittedSequence);
        EXPECT_EQ(last_.manifestId, manifestInForce());
        EXPECT_EQ(seen, value + kTail);
    }
    const int before = count_;
    writer_.close(); // with a last table
    ASSERT_TRUE(runUntil([&] { return count_ > before && last_.manifestId == manifestInForce(); }));
}

TEST_F(StoreWatch, AStoreThatCannotAnnounceOpensAllTheSame) {
    std::uint64_t hash = 14695981039346656037U; // of the path, worked out anew
    const ZnString path = directory_.path("s");
    for (const char byte : path.str())
        hash = (hash ^ static_cast<unsigned char>(byte)) * 1099511628211U;
    using namespace zn::ipc::detail;
    const ZnString name = signalBlockName("zn.embeddeddb", hexText(hash), "manifest");
    const int descriptor = ::shm_open(name.data(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_EQ(::fchmod(descriptor, 0644), 0); // somebody else's, for all one knows
    ASSERT_EQ(writer_.open(directory_.path("s"), announcing()), kOk);
    EXPECT_EQ(log_.countOf("nobody will be told of changes"), 1);
    EXPECT_EQ(log_.take().size(), 1U);
    ASSERT_EQ(putTagged(writer_, "a", "A"), kOk);
    EXPECT_EQ(writer_.flush(), kOk);
    EXPECT_EQ(writer_.watch(recorder()).code(), Status::IoError);
    ::close(descriptor);
    ::shm_unlink(name.data());
    writer_.close();
    ASSERT_EQ(writer_.open(directory_.path("s"), announcing()), kOk); // from here on
    EXPECT_EQ(writer_.watch(recorder()), kOk);
}

} // namespace
