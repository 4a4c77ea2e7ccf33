// A store whose files are damaged, lost or exchanged. What it shows must be right, or be said to be damaged.

#include "core/storage/StoreModel.h"
#include "support/LogCapture.h"

namespace {

using FileContents = std::map<ZnString, std::string>;

FileContents contentsOf(const MemoryFiles& files) {
    FileContents contents;
    for (const ZnString& path : files.paths())
        if (path != "/s/LOCK")
            contents[path] = files.content(path);
    return contents;
}

void putAll(MemoryFiles* files, const FileContents& contents) {
    for (const auto& [path, bytes] : contents)
        files->put(path, bytes);
}

/// The files of a process that was killed: two flushes, one of them with a blob, and synced writes after them.
FileContents makeStore(const std::string& mark, bool hasExtra = false) {
    MemoryFiles files;
    ZnEmbeddedDb store(files);
    EXPECT_EQ(store.open("/s", quietOptions()), kOk);
    const auto put = [&](const std::string& key, const std::string& value) {
        const std::string marked = value.substr(0, 2) + mark + value.substr(2);
        EXPECT_EQ(putTagged(store, key, marked, ZnEmbeddedDbDurability::Synced), kOk);
    };
    if (hasExtra)
        put("0", "A0");
    put("a", "A1");
    put("b", "B1");
    EXPECT_EQ(store.flush(), kOk);
    put("c", "C1" + std::string(40, '.'));
    EXPECT_EQ(store.remove("b"), kOk);
    EXPECT_EQ(store.flush(), kOk);
    put("d", "A2");
    put("a", "B2");
    put("e", "A3");
    files.stopAt(1);
    store.close();
    return contentsOf(files);
}

class StoreCorruption : public ::testing::Test {
protected:
    enum Outcome { Right, WithoutLast, Earlier, Failed, Unreadable, Wrong };

    /// Opens what is in `contents`. A failure names a file, and leaves everything as it was.
    Outcome outcomeOf(const FileContents& contents, const ZnEmbeddedDbOptions& options) {
        MemoryFiles files;
        putAll(&files, contents);
        ZnEmbeddedDb store(files);
        status_ = store.open("/s", options);
        if (!status_.isOk()) {
            EXPECT_GE(status_.code(), Status::IoError) << status_.message();
            EXPECT_TRUE(status_.message().contains("/s/") || contents.count("/s/CURRENT") == 0) << status_.message();
            EXPECT_EQ(contentsOf(files), contents);
            return Failed;
        }
        bool isReadable = false;
        const StoreContent content = contentOf(store, &isReadable);
        if (!isReadable)
            return othersAreRight(store) ? Unreadable : Wrong;
        const auto state = std::find(std::begin(states_), std::end(states_), content) - std::begin(states_);
        return state == std::ssize(states_) ? Wrong : static_cast<Outcome>(std::min<std::ptrdiff_t>(state, Earlier));
    }
    bool othersAreRight(const ZnEmbeddedDb& store) {
        ZnByteArray value;
        for (const auto& [key, expected] : states_[0])
            if (key != blob_.first && (!store.get(key, &value).isOk() || value.view() != expected))
                return false;
        status_ = store.get(blob_.first, &value);
        return status_.code() >= Status::IoError && status_.message().contains("/s/blobs/");
    }
    FileContents with(const ZnString& path, const std::string& bytes) const {
        FileContents contents = original_;
        contents[path] = bytes;
        return contents;
    }

    LogCapture log_;
    const FileContents original_ = makeStore("");
    const std::pair<const std::string, std::string> blob_ = {"c", "C1" + std::string(40, '.')};
    /// As it is, and as it was before each of the writes that stand in the log alone.
    const StoreContent states_[4] = {{blob_, {"a", "B2"}, {"d", "A2"}, {"e", "A3"}},
                                     {blob_, {"a", "B2"}, {"d", "A2"}},
                                     {blob_, {"a", "A1"}, {"d", "A2"}},
                                     {blob_, {"a", "A1"}}};
    Status status_;
};

TEST_F(StoreCorruption, NoBitAndNoCutGoesUnnoticed) {
    ASSERT_EQ(outcomeOf(original_, quietOptions()), Right);
    const std::string current = original_.at("/s/CURRENT");
    std::map<Outcome, int> counts;
    for (const auto& [path, bytes] : original_) {
        const bool isBlob = path.contains("/blobs/");
        const bool isLog = path.contains("/wal/");
        if (path.contains("/MANIFEST-") && "/s/" + current != path.str() + "\n")
            continue; // not read
        for (const bool readOnly : {true, false}) {
            if (!readOnly && (isBlob || path.contains("/tables/")))
                continue; // read in the same way
            forEachDamage(bytes, [&, &path = path](const std::string& damaged, const std::string& what) {
                SCOPED_TRACE(path.str() + ": " + what + (readOnly ? ", read only" : ""));
                const Outcome outcome = outcomeOf(with(path, damaged), quietOptions(readOnly));
                ++counts[outcome];
                EXPECT_NE(outcome, Wrong);
                EXPECT_TRUE(outcome != Unreadable || (isBlob && status_.code() == Status::Corruption));
                // The end of the log may as well never have been written: nothing behind it tells.
                EXPECT_TRUE(outcome != WithoutLast || isLog);
                EXPECT_TRUE(outcome != Earlier || (isLog && what.starts_with("cut")));
            });
            ASSERT_FALSE(HasFailure());
        }
    }
    EXPECT_GT(counts[Unreadable], 40 * 8); // the blob's bits
    EXPECT_GT(counts[Failed], 10000);
}

TEST_F(StoreCorruption, NoFileIsMissedOrMistakenForAnother) {
    const FileContents other = makeStore("other", true);
    std::vector<std::pair<std::string, FileContents>> rows;
    for (const auto& [path, bytes] : original_) {
        FileContents less = original_;
        less.erase(path);
        rows.emplace_back("missing " + path.str(), less);
        rows.emplace_back("empty " + path.str(), with(path, ""));
        if (!path.contains("/wal/")) // a whole log of another store is one as good as ours
            rows.emplace_back("of another store: " + path.str(), with(path, other.at(path)));
        for (const auto& [second, secondBytes] : original_) {
            FileContents swapped = with(path, secondBytes);
            swapped[second] = bytes;
            if (path < second && path.view().substr(0, 7) == second.view().substr(0, 7))
                rows.emplace_back("swapped " + path.str() + " " + second.str(), swapped);
        }
    }
    ASSERT_GT(rows.size(), 3 * original_.size());
    for (const auto& [what, contents] : rows) {
        for (const bool readOnly : {true, false}) {
            SCOPED_TRACE(what + (readOnly ? ", read only" : ""));
            const bool mayBeRight =
                what.find("MANIFEST") != std::string::npos || what.find("CURRENT") != std::string::npos;
            const bool isBlob = what.find("/blobs/") != std::string::npos;
            const Outcome outcome = outcomeOf(contents, quietOptions(readOnly));
            EXPECT_TRUE(outcome == (isBlob ? Unreadable : Failed) || (mayBeRight && outcome == Right)) << outcome;
        }
    }
}

TEST_F(StoreCorruption, AStoreThatLostItsPointerIsNotMadeAnew) {
    ZnEmbeddedDbOptions existing = quietOptions();
    existing.createIfMissing = false;
    for (const ZnEmbeddedDbOptions& options : {quietOptions(), quietOptions(true), existing}) {
        for (const auto& [path, bytes] : original_) { // any one of its files tells
            if (path == "/s/CURRENT" || path == "/s/MANIFEST-0.dbm")
                continue;
            EXPECT_EQ(outcomeOf({{path, bytes}}, options), Failed) << path;
            EXPECT_EQ(status_.code(), Status::Corruption);
            EXPECT_TRUE(status_.message().contains("CURRENT is missing")) << status_.message();
        }
    }
}

TEST_F(StoreCorruption, FilesOfOthersAreLeftAlone) {
    MemoryFiles files;
    putAll(&files, original_);
    FileContents foreign;
    for (const char* name : {"notes.txt", "CURRENT.old", "MANIFEST-x.dbm", "tables/L0-007.sst", "tables/x.sst.tmp",
                             "wal/WAL-1.log.bak", "wal/WAL-00.log", "blobs/BLOB-1", "tmp/L0-1.sst.tmp~", "tmp/mine",
                             // Numbers that no manifest can hold: counting on from them would be the store's end.
                             "MANIFEST-9223372036854775807.dbm", "wal/WAL-9223372036854775807.log"})
        foreign[ZnString("/s/") + name] = name;
    putAll(&files, foreign);
    for (int round = 0; round < 2; ++round) {
        ZnEmbeddedDb store(files);
        ASSERT_EQ(store.open("/s", quietOptions()), kOk);
        EXPECT_EQ(contentOf(store), states_[0]);
        EXPECT_EQ(putTagged(store, "a", "B2"), kOk);
        EXPECT_EQ(store.flush(), kOk);
    }
    for (const auto& [path, bytes] : foreign) {
        EXPECT_EQ(files.content(path), bytes) << path;
        EXPECT_EQ(log_.countOf("left alone: " + path.str()), path.contains("922337") ? 0 : 2) << path;
    }
}

TEST_F(StoreCorruption, ASalvagedStoreShowsWhatStandsBeforeTheDamage) {
    const ZnString path = "/s/wal/WAL-2.log";
    std::string bytes = original_.at(path);
    bytes[bytes.find("A2")] ^= 1; // in the first frame that no table covers
    MemoryFiles files;
    putAll(&files, with(path, bytes));
    ZnEmbeddedDb store(files);
    for (const bool readOnly : {true, false}) {
        ZnEmbeddedDbOptions options = quietOptions(readOnly);
        const Status status = store.open("/s", options);
        EXPECT_EQ(status.code(), Status::Corruption);
        EXPECT_TRUE(status.message().contains("log is damaged: /s/wal/WAL-2.log: offset ")) << status.message();
        options.salvageLog = true;
        ASSERT_EQ(store.open("/s", options), kOk);
        EXPECT_EQ(contentOf(store), states_[3]);
        EXPECT_EQ(putTagged(store, "f", "A4").isOk(), !readOnly);
        store.close();
    }
    ASSERT_EQ(store.open("/s", quietOptions()), kOk);
    EXPECT_EQ(contentOf(store), (StoreContent{blob_, {"a", "A1"}, {"f", "A4"}}));
    store.close();

    FileContents less = original_;
    less.erase(path);
    ZnEmbeddedDbOptions salvaging = quietOptions(true);
    salvaging.salvageLog = true;
    log_.take();
    EXPECT_EQ(outcomeOf(less, salvaging), Earlier);
    EXPECT_EQ(log_.countOf("log is missing: /s/wal/WAL-2.log"), 1); // the only word about what is lost
}

} // namespace
