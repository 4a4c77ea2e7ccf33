// The commands that open a store to read it.

#include "Commands.h"
#include "Exit.h"
#include "JsonLines.h"
#include "Progress.h"
#include "core/storage/embeddeddb/ZnEmbeddedDb.h"

#include <limits>
#include <string>

namespace znstore {

namespace {

constexpr std::uint64_t kNoLimit = std::numeric_limits<std::uint64_t>::max();

ZnEmbeddedDbStatus openToRead(ZnEmbeddedDb* store, const Arguments& arguments, bool verifyFilters = true) {
    ZnEmbeddedDbOptions options;
    options.readOnly = true;
    options.createIfMissing = false;
    options.verifyFilters = verifyFilters;
    return store->open(arguments.text("DIR"), options);
}

ZnEmbeddedDbRange rangeOf(const Arguments& arguments) {
    ZnEmbeddedDbRange range;
    range.start = arguments.bytes("--start");
    range.end = arguments.bytes("--end");
    range.prefix = arguments.bytes("--prefix");
    range.reverse = arguments.has("--reverse");
    range.limit = arguments.number("--limit", kNoLimit);
    range.keysOnly = arguments.has("--keys");
    return range;
}

struct RecordForm {
    bool hasSecondaryKey = false;
    bool hasValue = true;
};

/// Writes what is left of `records`, at most `limit` of them. Gives their number.
std::uint64_t writeRecords(ZnEmbeddedDbIterator& records, RecordForm form, std::uint64_t limit, Output& output) {
    Progress progress("reading");
    std::uint64_t count = 0;
    for (; count < limit && records.valid() && output.isOpen(); records.next()) {
        if (form.hasSecondaryKey) {
            output.writeEscaped(records.secondaryKey());
            output.write('\t');
        }
        output.writeEscaped(records.key());
        if (form.hasValue) {
            output.write('\t');
            output.writeEscaped(records.value());
        }
        output.write('\n');
        progress.show(++count);
    }
    return count;
}

/// The record of exactly this key; not valid when there is none.
ZnEmbeddedDbIterator findRecord(const ZnEmbeddedDb& store, const ZnByteArray& key) {
    ZnEmbeddedDbRange range;
    range.start = key;
    range.prefix = key;
    range.limit = 1;
    range.keysOnly = true;
    return store.scan(range);
}

int writeIndexKeys(const ZnEmbeddedDb& store, const ZnByteArray& key, Output& output) {
    const ZnEmbeddedDbIterator record = findRecord(store, key);
    if (!record.status().isOk())
        return fail(record.status());
    if (!record.valid() || record.key() != key.view())
        return fail(kExitNothingFound, "no such key");
    for (const auto& [name, secondaryKeys] : record.indexKeys())
        for (const ZnByteArray& secondaryKey : secondaryKeys) {
            output.write(name.view());
            output.write('\t');
            output.writeEscaped(secondaryKey.view());
            output.write('\n');
        }
    return kExitOk;
}

int writeValue(const ZnEmbeddedDb& store, const ZnByteArray& key, bool isRaw, Output& output) {
    ZnByteArray value;
    if (const auto status = store.get(key, &value); !status.isOk())
        return status.code() == ZnEmbeddedDbStatus::NotFound ? fail(kExitNothingFound, "no such key") : fail(status);
    if (isRaw) {
        output.write(value.view());
    } else {
        output.writeEscaped(value.view());
        output.write('\n');
    }
    return kExitOk;
}

int writeReport(const ZnEmbeddedDbVerifyReport& report, Output& output) {
    for (const ZnString& problem : report.problems)
        output.line("problem: ", problem);
    if (report.problemCount > report.problems.size())
        output.line("problem: ", ZnString::number(report.problemCount - report.problems.size()), " more");
    for (const ZnString& orphan : report.orphans)
        output.line("orphan: ", orphan);
    output.line(ZnString::number(report.problemCount), " problems; ", ZnString::number(report.tableCount), " tables, ",
                ZnString::number(report.recordCount), " records in tables, ", ZnString::number(report.liveRecordCount),
                " live; ", ZnString::number(report.indexEntryCount), " index entries, ",
                ZnString::number(report.staleIndexEntryCount), " stale; ", ZnString::number(report.blobValueCount),
                " values in blob files");
    return report.problemCount == 0 ? kExitOk : kExitDamaged;
}

struct Number {
    const char* name;
    std::uint64_t ZnEmbeddedDbStats::*member;
};
constexpr Number kNumbers[] = {
    {"putCount", &ZnEmbeddedDbStats::putCount},
    {"removeCount", &ZnEmbeddedDbStats::removeCount},
    {"getCount", &ZnEmbeddedDbStats::getCount},
    {"getHitCount", &ZnEmbeddedDbStats::getHitCount},
    {"scanCount", &ZnEmbeddedDbStats::scanCount},
    {"indexLookupCount", &ZnEmbeddedDbStats::indexLookupCount},
    {"batchCount", &ZnEmbeddedDbStats::batchCount},
    {"groupCount", &ZnEmbeddedDbStats::groupCount},
    {"walBytesWritten", &ZnEmbeddedDbStats::walBytesWritten},
    {"walSyncCount", &ZnEmbeddedDbStats::walSyncCount},
    {"walRotationCount", &ZnEmbeddedDbStats::walRotationCount},
    {"flushCount", &ZnEmbeddedDbStats::flushCount},
    {"flushBytesWritten", &ZnEmbeddedDbStats::flushBytesWritten},
    {"flushFailedCount", &ZnEmbeddedDbStats::flushFailedCount},
    {"compactionCount", &ZnEmbeddedDbStats::compactionCount},
    {"compactionBytesRead", &ZnEmbeddedDbStats::compactionBytesRead},
    {"compactionBytesWritten", &ZnEmbeddedDbStats::compactionBytesWritten},
    {"compactionFailedCount", &ZnEmbeddedDbStats::compactionFailedCount},
    {"blobGcCount", &ZnEmbeddedDbStats::blobGcCount},
    {"blobGcAbandonedCount", &ZnEmbeddedDbStats::blobGcAbandonedCount},
    {"blobBytesWritten", &ZnEmbeddedDbStats::blobBytesWritten},
    {"blobBytesRead", &ZnEmbeddedDbStats::blobBytesRead},
    {"bloomNegativeCount", &ZnEmbeddedDbStats::bloomNegativeCount},
    {"bloomFalsePositiveCount", &ZnEmbeddedDbStats::bloomFalsePositiveCount},
    {"stallCount", &ZnEmbeddedDbStats::stallCount},
    {"stallMicroseconds", &ZnEmbeddedDbStats::stallMicroseconds},
    {"level0TableCount", &ZnEmbeddedDbStats::level0TableCount},
    {"level1TableCount", &ZnEmbeddedDbStats::level1TableCount},
    {"tableBytes", &ZnEmbeddedDbStats::tableBytes},
    {"memtableCount", &ZnEmbeddedDbStats::memtableCount},
    {"memtableBytes", &ZnEmbeddedDbStats::memtableBytes},
    {"walBytes", &ZnEmbeddedDbStats::walBytes},
    {"blobFileCount", &ZnEmbeddedDbStats::blobFileCount},
    {"blobBytes", &ZnEmbeddedDbStats::blobBytes},
    {"deadBlobBytes", &ZnEmbeddedDbStats::deadBlobBytes},
    {"lastCommittedSequence", &ZnEmbeddedDbStats::lastCommittedSequence},
    {"durableSequence", &ZnEmbeddedDbStats::durableSequence},
};

} // namespace

int runGet(const Arguments& arguments, Output& output) {
    if (arguments.has("--raw") && arguments.has("--index-keys"))
        return fail(kExitUsage, "--raw and --index-keys exclude each other");
    ZnEmbeddedDb store;
    if (const auto status = openToRead(&store, arguments); !status.isOk())
        return failToOpen(status);
    const ZnByteArray key = arguments.bytes("KEY");
    return arguments.has("--index-keys") ? writeIndexKeys(store, key, output)
                                         : writeValue(store, key, arguments.has("--raw"), output);
}

int runScan(const Arguments& arguments, Output& output) {
    ZnEmbeddedDb store;
    if (const auto status = openToRead(&store, arguments); !status.isOk())
        return failToOpen(status);
    ZnEmbeddedDbIterator records = store.scan(rangeOf(arguments));
    writeRecords(records, {false, !arguments.has("--keys")}, kNoLimit, output);
    return fail(records.status());
}

int runIndex(const Arguments& arguments, Output& output) {
    const bool isLookup = arguments.has("SECONDARYKEY");
    for (const char* bound : {"--start", "--end", "--prefix", "--reverse"})
        if (isLookup && arguments.has(bound))
            return fail(kExitUsage, ZnString(bound) + " cannot stand beside a SECONDARYKEY");
    ZnEmbeddedDb store;
    if (const auto status = openToRead(&store, arguments); !status.isOk())
        return failToOpen(status);
    const ZnString name = arguments.text("NAME");
    ZnEmbeddedDbIterator records =
        isLookup ? store.indexLookup(name, arguments.bytes("SECONDARYKEY")) : store.indexScan(name, rangeOf(arguments));
    const bool isFound = !isLookup || records.valid();
    writeRecords(records, {true, !arguments.has("--keys")}, arguments.number("--limit", kNoLimit), output);
    if (isFound || !records.status().isOk())
        return fail(records.status());
    return fail(kExitNothingFound, "no record has this secondary key");
}

int runExport(const Arguments& arguments, Output& output) {
    ZnEmbeddedDb store;
    if (const auto status = openToRead(&store, arguments); !status.isOk())
        return failToOpen(status);
    Progress progress("export");
    std::uint64_t count = 0;
    std::string line;
    ZnEmbeddedDbIterator records = store.scan();
    for (; records.valid() && output.isOpen(); records.next()) {
        line.clear();
        appendRecordJson(&line, records.key(), records.value(), records.indexKeys());
        line.push_back('\n');
        output.write(line);
        progress.show(++count);
    }
    return fail(records.status());
}

int runVerify(const Arguments& arguments, Output& output) {
    ZnEmbeddedDb store;
    ZnEmbeddedDbVerifyReport report;
    // What opening would check is checked anyway, and told of as one problem among others.
    auto status = openToRead(&store, arguments, false);
    if (status.code() == ZnEmbeddedDbStatus::Corruption) {
        output.line("problem: ", status.message());
        return fail(kExitDamaged, "damaged, and cannot be opened to look further: " + arguments.text("DIR"));
    }
    if (!status.isOk())
        return failToOpen(status);
    {
        Progress progress("verify");
        status = store.verify(
            &report, [&](std::uint64_t doneBytes, std::uint64_t totalBytes) { progress.show(doneBytes, totalBytes); });
    }
    const int exitCode = writeReport(report, output);
    return status.isOk() ? exitCode : fail(status);
}

int runStats(const Arguments& arguments, Output& output) {
    ZnEmbeddedDb store;
    if (const auto status = openToRead(&store, arguments); !status.isOk())
        return failToOpen(status);
    const ZnEmbeddedDbStats stats = store.stats();
    for (const auto& [name, member] : kNumbers)
        output.line(name, "\t", ZnString::number(stats.*member));
    if (!stats.backgroundError.isOk())
        output.line("backgroundError\t", stats.backgroundError.message());
    return kExitOk;
}

} // namespace znstore
