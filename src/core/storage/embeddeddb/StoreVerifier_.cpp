#include "core/storage/embeddeddb/StoreVerifier_.h"

#include "core/storage/embeddeddb/FileNames_.h"
#include "core/storage/embeddeddb/IndexKey_.h"
#include "core/storage/embeddeddb/IteratorCore_.h"
#include "core/storage/embeddeddb/Manifest_.h"
#include "core/storage/embeddeddb/RecordValue_.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <string>
#include <string_view>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

using Find = TableHandle_::Find;

constexpr std::size_t kReportedProblems = 100;
constexpr std::uint64_t kProgressBytes = 4 * 1024 * 1024;
constexpr std::size_t kOpenBlobFiles = 16;

/// A key for people: quoted, what is not printable as \xNN, and not too much of it.
ZnString keyText(std::string_view key) {
    constexpr std::size_t kShownBytes = 48;
    constexpr char kDigits[] = "0123456789abcdef";
    ZnString text("\"");
    for (const char c : key.substr(0, kShownBytes)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7F && c != '"' && c != '\\')
            text += c;
        else
            text.append(std::string{'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]});
    }
    return text + (key.size() > kShownBytes ? "\"..." : "\"");
}

ZnString nameOf(const TableHandle_* table) {
    return table == nullptr ? ZnString("a memtable") : table->meta().fileName;
}

/// Tells now and then how far the check has come.
///
/// Every byte of a table counts twice, as it is read once on opening it and once in order. Thread: one.
class ProgressMeter {
public:
    ProgressMeter(const ZnEmbeddedDbProgress& progress, std::uint64_t totalBytes)
        : progress_(progress), totalBytes_(totalBytes) {}

    void add(std::uint64_t byteCount) {
        doneBytes_ = std::min(doneBytes_ + byteCount, totalBytes_); // blob values may be read more than once
        if (doneBytes_ - toldBytes_ >= kProgressBytes)
            tell_();
    }
    void finish() {
        doneBytes_ = totalBytes_; // some bytes of the files are no part of any record
        tell_();
    }

private:
    void tell_() {
        toldBytes_ = doneBytes_;
        if (progress_)
            progress_(doneBytes_, totalBytes_);
    }

    const ZnEmbeddedDbProgress& progress_;
    const std::uint64_t totalBytes_;
    std::uint64_t doneBytes_ = 0;
    std::uint64_t toldBytes_ = 0;
};

/// One check of a store, with what it has found out so far.
///
/// Goes on after a problem, leaving out what could only give wrong alarms after it. Keeps no records in memory: it goes
/// through those of one kind in order, and looks up what belongs to each. Thread: one. Owner: verifyStore, as a local.
class Verification {
public:
    Verification(ZnStorageFiles& files, const StorePaths_& paths, const ReadView_& view,
                 std::uint64_t firstRunningFileId, std::optional<std::uint64_t> readManifestId,
                 const ZnEmbeddedDbProgress& progress)
        : files_(files),
          paths_(paths),
          view_(view),
          firstRunningFileId_(firstRunningFileId),
          readManifestId_(readManifestId),
          progress_(progress, totalBytes_()) {}

    ZnEmbeddedDbStatus run();
    ZnEmbeddedDbVerifyReport report;

private:
    std::uint64_t totalBytes_() const;
    void openTables_();
    using TablePtr_ = std::shared_ptr<const TableHandle_>;
    bool isReplaced_(const ZnString& fileName) const;
    std::shared_ptr<const TableHandle_> openTable_(const TablePtr_& known, std::int32_t kind,
                                                   const ZnString& indexName);
    template <typename Visit>
    void walk_(std::vector<MergeSource_> sources, Visit visit);
    void checkOrder_(const FoundRecord_& newer, const FoundRecord_& older);
    void checkPrimaryRecord_(const FoundRecord_& found, bool isNewest);
    void checkBlob_(const FoundRecord_& found, const BlobRef_& blob);
    void checkIndexed_(const FoundRecord_& found, std::string_view metadata);
    void checkIndex_(const ZnString& indexName);
    void checkIndexRecord_(const FoundRecord_& found, const ZnString& indexName);
    std::set<ZnString> indexNames_() const;
    void findOrphans_();
    template <typename IsUsed>
    void findOrphansIn_(const ZnString& directory, IsUsed isUsed);
    std::set<ZnString> usedBlobFiles_() const;
    void addProblem_(ZnEmbeddedDbStatus::Code code, ZnString line);
    ZnEmbeddedDbStatus result_() const;

    ZnStorageFiles& files_;
    const StorePaths_& paths_;
    const ReadView_& view_;
    const std::uint64_t firstRunningFileId_;
    const std::optional<std::uint64_t> readManifestId_;
    ProgressMeter progress_;
    ReadView_ fresh_;                   // the same as view_, but read from the disk now
    std::set<ZnString> damagedIndexes_; // of which a table could not be opened
    bool lacksRecords_ = false;         // the same of the primary records
    bool foundCorruption_ = false;
};

ZnEmbeddedDbStatus Verification::run() {
    openTables_();
    walk_(primarySources(fresh_),
          [&](const FoundRecord_& found, bool isNewest) { checkPrimaryRecord_(found, isNewest); });
    for (const ZnString& indexName : indexNames_())
        checkIndex_(indexName);
    findOrphans_();
    progress_.finish();
    return result_();
}

std::uint64_t Verification::totalBytes_() const {
    std::uint64_t byteCount = 0;
    for (const auto& table : view_.tables->primaryView)
        byteCount += 2 * table->fileBytes();
    for (const auto& [indexName, tables] : view_.tables->indexViews)
        for (const auto& table : tables)
            byteCount += 2 * table->fileBytes();
    for (const ZnString& path : listFiles(files_, paths_.blobsDir, kBlobPrefix, kBlobSuffix)) {
        RandomAccessFile_ file(files_);
        if (file.open(path, RandomAccessFile_::Mode::ReadOnly))
            byteCount += file.size();
    }
    return byteCount;
}

void Verification::openTables_() {
    const auto tables = std::make_shared<TableViews_>();
    tables->largestPrimaryKey = view_.tables->largestPrimaryKey;
    for (const auto& known : view_.tables->primaryView) {
        const auto table = openTable_(known, kPrimaryTable, "");
        lacksRecords_ = lacksRecords_ || table == nullptr;
        if (table == nullptr)
            continue;
        tables->primaryView.push_back(table);
        if (tables->largestPrimaryKey.view() < table->lastKey().view())
            addProblem_(ZnEmbeddedDbStatus::Corruption,
                        table->meta().fileName + ": has keys above the largest that the store looks for");
    }
    for (const auto& [indexName, list] : view_.tables->indexViews) {
        for (const auto& known : list) {
            if (const auto table = openTable_(known, kIndexTable, indexName))
                tables->indexViews[indexName].push_back(table);
            else
                damagedIndexes_.insert(indexName);
        }
    }
    fresh_.sealed = view_.sealed;
    fresh_.tables = tables;
    fresh_.counters = std::make_shared<StoreCounters_>(); // checking is no reading that the store should count
    fresh_.blobs = readManifestId_.has_value()
                       ? view_.blobs
                       : std::make_shared<BlobFiles_>(files_, paths_.blobsDir, kOpenBlobFiles, fresh_.counters);
}

/// Null, with the problem told, for a table that is damaged or not the one that the store takes it for.
std::shared_ptr<const TableHandle_> Verification::openTable_(const TablePtr_& known, std::int32_t kind,
                                                             const ZnString& indexName) {
    const TableMeta_& meta = known->meta();
    ++report.tableCount;
    report.tableBytes += known->fileBytes();
    ZnEmbeddedDbStatus status;
    const auto table = std::make_shared<TableHandle_>();
    if (!table->open(files_, paths_.rootPath, meta, {true, [&](std::uint64_t byteCount) { progress_.add(byteCount); }},
                     &status)) {
        if (isReplaced_(meta.fileName))
            return known;
        addProblem_(status.code(), meta.fileName + ": " + status.message());
        return nullptr;
    }
    if (meta.kind == kind && meta.indexName == indexName)
        return table;
    addProblem_(ZnEmbeddedDbStatus::Corruption, meta.fileName + ": stands among the tables of another kind");
    return nullptr;
}

/// Whether the table is missing because a writer has changed the set of tables since the store was opened to read.
bool Verification::isReplaced_(const ZnString& fileName) const {
    std::uint64_t manifestId = 0;
    std::vector<ZnString> names;
    return readManifestId_.has_value() && files_.list(paths_.tablesDir, &names) == 0 &&
           std::count(names.begin(), names.end(), fileName) == 0 &&
           readCurrent(files_, paths_.rootPath, &manifestId).isOk() && manifestId != *readManifestId_;
}

/// Goes through all records, of one key those of the newest source first.
template <typename Visit>
void Verification::walk_(std::vector<MergeSource_> sources, Visit visit) {
    RecordMerge_ merge(std::move(sources), {}, false);
    FoundRecord_ last;
    bool isFirst = true;
    for (; merge.isValid(); merge.advance()) {
        const FoundRecord_ found{merge.record(), merge.source().entry(), merge.source().table()};
        const bool isNewest = isFirst || found.record.key != last.record.key;
        if (!isNewest)
            checkOrder_(last, found);
        if (found.table != nullptr) {
            ++report.recordCount;
            progress_.add(kRecordFixedBytes + found.record.key.size() + found.record.value.size());
        }
        visit(found, isNewest);
        last = found;
        isFirst = false;
    }
    if (merge.broken() != nullptr)
        addProblem_(ZnEmbeddedDbStatus::Corruption, unreadableTable(*merge.broken()->table()).message());
}

void Verification::checkOrder_(const FoundRecord_& newer, const FoundRecord_& older) {
    if (newer.record.sequence > older.record.sequence)
        return;
    const bool isEqual = newer.record.sequence == older.record.sequence;
    addProblem_(ZnEmbeddedDbStatus::Corruption, nameOf(newer.table) + ": key " + keyText(newer.record.key) +
                                                    " has sequence " + ZnString::number(newer.record.sequence) +
                                                    (isEqual ? ZnString(", which it also has in ")
                                                             : " and hides the newer one of sequence " +
                                                                   ZnString::number(older.record.sequence) + " in ") +
                                                    nameOf(older.table));
}

void Verification::checkPrimaryRecord_(const FoundRecord_& found, bool isNewest) {
    if (found.record.type == kTombstoneRecord)
        return;
    StoredValueView_ stored;
    if (found.entry != nullptr) {
        stored.isInline = true;
    } else if (!parseRecordValue(found.record, &stored)) {
        addProblem_(ZnEmbeddedDbStatus::Corruption, unreadableValue(*found.table, found.record).message());
        return;
    }
    if (!stored.isInline)
        checkBlob_(found, stored.blob);
    report.liveRecordCount += isNewest ? 1 : 0;
    if (isNewest && !lacksRecords_) // else it may be one that a record of the lost table replaces
        checkIndexed_(found, stored.metadata);
}

void Verification::checkBlob_(const FoundRecord_& found, const BlobRef_& blob) {
    ZnByteArray value;
    const ZnEmbeddedDbStatus status = fresh_.blobs->read(blob, &value);
    progress_.add(blob.size);
    if (!status.isOk()) {
        addProblem_(status.code(),
                    nameOf(found.table) + ": key " + keyText(found.record.key) + ": " + status.message());
        return;
    }
    ++report.blobValueCount;
    report.blobBytes += blob.size;
}

/// Every secondary key of a live record must lead to it.
void Verification::checkIndexed_(const FoundRecord_& found, std::string_view metadata) {
    IndexKeys_ decoded;
    if (found.entry == nullptr)
        decodeIndexKeys(metadata, &decoded); // has been checked with the value
    for (const auto& [indexName, keys] : found.entry != nullptr ? found.entry->indexKeys() : decoded) {
        if (damagedIndexes_.count(indexName) != 0)
            continue;
        for (const ZnByteArray& key : keys) {
            std::string indexKey;
            appendIndexKey(&indexKey, key.view(), found.record.key);
            FoundRecord_ entry;
            const Find result = findIndexRecord(fresh_, indexName, indexKey, &entry);
            if (result != Find::Found || entry.record.type == kTombstoneRecord)
                addProblem_(ZnEmbeddedDbStatus::Corruption, nameOf(found.table) + ": key " + keyText(found.record.key) +
                                                                " is not in index " + indexName + " under " +
                                                                keyText(key.view()));
        }
    }
}

void Verification::checkIndex_(const ZnString& indexName) {
    walk_(indexSources(fresh_, indexName), [&](const FoundRecord_& found, bool isNewest) {
        if (found.record.type == kBlobRecord || !found.record.value.empty())
            addProblem_(ZnEmbeddedDbStatus::Corruption,
                        nameOf(found.table) + ": index key " + keyText(found.record.key) + " has a value");
        if (isNewest && found.record.type != kTombstoneRecord)
            checkIndexRecord_(found, indexName);
    });
}

void Verification::checkIndexRecord_(const FoundRecord_& found, const ZnString& indexName) {
    std::string secondary;
    std::string_view primary;
    if (!splitIndexKey(found.record.key, &secondary, &primary)) {
        addProblem_(ZnEmbeddedDbStatus::Corruption,
                    nameOf(found.table) + ": index key " + keyText(found.record.key) + " does not come apart");
        return;
    }
    FoundRecord_ record;
    const Find result = findRecord(fresh_, primary, &record);
    if (result == Find::Unreadable) {
        addProblem_(ZnEmbeddedDbStatus::Corruption, unreadableTable(*record.table).message());
        return;
    }
    const bool isLive = result == Find::Found && recordHasIndexKey(record, indexName.view(), secondary);
    ++(isLive ? report.indexEntryCount : report.staleIndexEntryCount);
}

std::set<ZnString> Verification::indexNames_() const {
    std::set<ZnString> names;
    for (const auto& [indexName, tables] : fresh_.tables->indexViews)
        names.insert(indexName);
    for (const auto& memtable : fresh_.sealed)
        for (const auto& [indexName, entries] : unsorted(*memtable).indexes())
            names.insert(indexName);
    return names;
}

void Verification::findOrphans_() {
    std::set<ZnString> tableNames;
    for (const auto& table : view_.tables->primaryView)
        tableNames.insert(table->meta().fileName);
    for (const auto& [indexName, tables] : view_.tables->indexViews)
        for (const auto& table : tables)
            tableNames.insert(table->meta().fileName);
    findOrphansIn_(paths_.tablesDir, [&](const ZnString& name) { return tableNames.count(name) != 0; });
    const std::set<ZnString> blobNames = usedBlobFiles_();
    if (!lacksRecords_) // else nobody knows what the records of the lost table refer to
        findOrphansIn_(paths_.blobsDir, [&](const ZnString& name) { return blobNames.count(name) != 0; });
    findOrphansIn_(paths_.tempDir, [](const ZnString&) { return false; });
}

template <typename IsUsed>
void Verification::findOrphansIn_(const ZnString& directory, IsUsed isUsed) {
    std::vector<ZnString> names;
    if (const int error = files_.list(directory, &names); error != 0 && error != ENOENT) {
        addProblem_(ZnEmbeddedDbStatus::IoError, directory + ": cannot be listed: " + systemErrorText(error));
        return;
    }
    std::sort(names.begin(), names.end());
    for (const ZnString& name : names)
        if (!isUsed(name) && dataFileId(name) < firstRunningFileId_)
            report.orphans.append(joinPath(directory, name));
}

std::set<ZnString> Verification::usedBlobFiles_() const {
    std::set<ZnString> names;
    for (const auto& table : fresh_.tables->primaryView)
        for (const auto& [blobFileId, byteCount] : table->blobUses())
            names.insert(blobFileName(blobFileId));
    return names;
}

void Verification::addProblem_(ZnEmbeddedDbStatus::Code code, ZnString line) {
    foundCorruption_ = foundCorruption_ || code != ZnEmbeddedDbStatus::IoError;
    ++report.problemCount;
    if (report.problems.size() < kReportedProblems)
        report.problems.append(std::move(line));
}

ZnEmbeddedDbStatus Verification::result_() const {
    if (report.problemCount == 0)
        return {};
    const ZnString first = ZnString::number(report.problemCount) + " problems, the first: " + report.problems[0];
    return ZnEmbeddedDbStatus(foundCorruption_ ? ZnEmbeddedDbStatus::Corruption : ZnEmbeddedDbStatus::IoError, first)
        .at(paths_.rootPath);
}

} // namespace

ZnEmbeddedDbStatus verifyStore(ZnStorageFiles& files, const StorePaths_& paths, const ReadView_& view,
                               std::uint64_t firstRunningFileId, std::optional<std::uint64_t> readManifestId,
                               ZnEmbeddedDbVerifyReport* report, const ZnEmbeddedDbProgress& progress) {
    Verification verification(files, paths, view, firstRunningFileId, readManifestId, progress);
    ZnEmbeddedDbStatus status = verification.run();
    if (report != nullptr)
        *report = std::move(verification.report);
    return status;
}

} // namespace znEmbeddedDbDetail
