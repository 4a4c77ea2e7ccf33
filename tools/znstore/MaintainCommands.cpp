// The commands that tidy a store up.

#include "Commands.h"
#include "Exit.h"
#include "core/storage/embeddeddb/ZnEmbeddedDb.h"

namespace znstore {

namespace {

/// As it is on the disk: opening a store for writing may change that.
ZnEmbeddedDbStatus readStats(const Arguments& arguments, ZnEmbeddedDbStats* stats) {
    ZnEmbeddedDb store;
    ZnEmbeddedDbOptions options;
    options.readOnly = true;
    options.verifyFilters = false;
    ZnEmbeddedDbStatus status = store.open(arguments.text("DIR"), options);
    if (status.isOk())
        *stats = store.stats();
    return status;
}

void writeGain(const char* name, std::uint64_t before, std::uint64_t after, Output& output) {
    output.line(name, "\t", ZnString::number(before), " before\t", ZnString::number(after), " after");
}

int maintain(const Arguments& arguments, ZnEmbeddedDbStatus (ZnEmbeddedDb::*operation)(), Output& output) {
    ZnEmbeddedDbStats before;
    ZnEmbeddedDb store;
    ZnEmbeddedDbOptions options;
    options.createIfMissing = false;
    options.notifyChanges = true;
    auto status = readStats(arguments, &before);
    if (status.isOk())
        status = store.open(arguments.text("DIR"), options);
    if (!status.isOk())
        return failToOpen(status);
    if (status = (store.*operation)(); !status.isOk())
        return fail(status);
    const ZnEmbeddedDbStats after = store.stats();
    writeGain("tables", before.level0TableCount + before.level1TableCount,
              after.level0TableCount + after.level1TableCount, output);
    writeGain("table bytes", before.tableBytes, after.tableBytes, output);
    writeGain("blob files", before.blobFileCount, after.blobFileCount, output);
    writeGain("blob bytes", before.blobBytes, after.blobBytes, output);
    return kExitOk;
}

} // namespace

int runCompact(const Arguments& arguments, Output& output) {
    return maintain(arguments, &ZnEmbeddedDb::compact, output);
}

int runGc(const Arguments& arguments, Output& output) {
    return maintain(arguments, &ZnEmbeddedDb::collectGarbage, output);
}

} // namespace znstore
