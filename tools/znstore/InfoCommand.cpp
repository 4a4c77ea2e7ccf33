// Shows what a store consists of, from its files alone.

#include "Commands.h"
#include "DumpText.h"
#include "Exit.h"
#include "core/storage/embeddeddb/FileNames_.h"
#include "core/storage/embeddeddb/Manifest_.h"
#include "core/storage/embeddeddb/RandomAccessFile_.h"
#include "core/storage/embeddeddb/StorePaths_.h"
#include "core/storage/embeddeddb/WalReader_.h"

#include <algorithm>
#include <tuple>

namespace znstore {

namespace {

using namespace znEmbeddedDbDetail;

constexpr int kManifestTries = 10;

/// A writer beside this may replace the manifest between the two steps, and in the end remove it.
ZnEmbeddedDbStatus readManifestInForce(const ZnString& rootPath, ManifestState_* state) {
    ZnEmbeddedDbStatus status;
    for (int tries = 0; tries < kManifestTries; ++tries) {
        std::uint64_t id = 0;
        status = readCurrent(znStorageFiles(), rootPath, &id);
        if (!status.isOk())
            return status;
        status = readManifest(znStorageFiles(), rootPath, id, state);
        std::uint64_t idAfter = id;
        if (status.isOk() || !readCurrent(znStorageFiles(), rootPath, &idAfter).isOk() || idAfter == id)
            break;
    }
    return status;
}

/// "missing" for a file that cannot be opened.
ZnString sizeText(const ZnString& path) {
    RandomAccessFile_ file(znStorageFiles());
    return file.open(path, RandomAccessFile_::Mode::ReadOnly) ? ZnString::number(file.size()) + " bytes" : "missing";
}

bool writeTables(const ManifestState_& state, const StorePaths_& paths, Output& output) {
    std::vector<TableMeta_> tables = state.tables;
    std::sort(tables.begin(), tables.end(), [](const TableMeta_& left, const TableMeta_& right) {
        return std::tie(left.kind, left.indexName, left.level, left.fileId) <
               std::tie(right.kind, right.indexName, right.level, right.fileId);
    });
    bool isWhole = true;
    output.line("tables: ", ZnString::number(tables.size()));
    for (const TableMeta_& table : tables) {
        const ZnString size = sizeText(joinPath(paths.tablesDir, table.fileName));
        isWhole &= size != "missing";
        output.line("  ", tableText(table), "\t", size);
    }
    return isWhole;
}

void writeBlobFiles(const StorePaths_& paths, Output& output) {
    const auto files = listFiles(znStorageFiles(), paths.blobsDir, kBlobPrefix, kBlobSuffix);
    output.line("blob files: ", ZnString::number(files.size()));
    for (const ZnString& path : files)
        output.line("  ", nameOf(path), "\t", sizeText(path));
}

/// What stands behind the last frame; empty for a log that ends with it.
ZnString tailText(WalReader_& reader, WalReader_::Step step, std::uint64_t tableSequence, bool* isDamaged) {
    if (step == WalReader_::Step::End)
        return "";
    if (step == WalReader_::Step::Failed) {
        *isDamaged = true;
        return "\t" + reader.status().message();
    }
    const ZnString rest = "\t" + ZnString::number(reader.fileBytes() - reader.goodBytes()) + " bytes behind: ";
    const WalReader_::Tail tail = reader.classifyTail(tableSequence);
    if (tail == WalReader_::Tail::Torn)
        return rest + "a write cut short";
    if (tail == WalReader_::Tail::Covered)
        return rest + "damage to what is in tables";
    *isDamaged = true;
    return rest + "damage";
}

ZnString logText(const StorePaths_& paths, std::uint64_t id, std::uint64_t tableSequence, bool* isDamaged) {
    WalReader_ reader(znStorageFiles());
    if (const auto status = reader.open(paths.walDir, id); !status.isOk()) {
        *isDamaged = true;
        return status.message();
    }
    std::uint64_t frameCount = 0;
    std::uint64_t operationCount = 0;
    WalReader_::Step step = reader.next();
    for (; step == WalReader_::Step::Frame; step = reader.next()) {
        ++frameCount;
        operationCount += reader.frame().operationCount;
    }
    return ZnString::number(reader.fileBytes()) + " bytes\t" + ZnString::number(frameCount) + " frames\t" +
           ZnString::number(operationCount) + " operations\tsequences to " + ZnString::number(reader.lastSequence()) +
           tailText(reader, step, tableSequence, isDamaged);
}

bool writeLogs(const ManifestState_& state, const StorePaths_& paths, Output& output) {
    const auto files = listFiles(znStorageFiles(), paths.walDir, kWalPrefix, kWalSuffix);
    bool isDamaged = false;
    std::uint64_t tableSequence = 0; // as opening a store has it: what no table shows to be in it comes from the logs
    for (const TableMeta_& table : state.tables)
        tableSequence = std::max(tableSequence, table.maxSequence);
    output.line("logs: ", ZnString::number(files.size()));
    for (const ZnString& path : files) {
        const std::uint64_t id = parseFileId(path, kWalPrefix, kWalSuffix);
        const bool isNeeded = id >= state.replayFromWalId;
        bool isThisDamaged = false;
        output.line("  ", nameOf(path), isNeeded ? "\t" : "\tnot needed any more\t",
                    id == 0 ? ZnString("no name of a log") : logText(paths, id, tableSequence, &isThisDamaged));
        isDamaged |= isNeeded && isThisDamaged;
    }
    return !isDamaged;
}

} // namespace

int runInfo(const Arguments& arguments, Output& output) {
    const StorePaths_ paths(arguments.text("DIR"));
    ManifestState_ state;
    if (const auto status = readManifestInForce(paths.rootPath, &state); !status.isOk())
        return status.code() == ZnEmbeddedDbStatus::NotFound ? fail(kExitNotOpened, "no store: " + paths.rootPath)
                                                             : fail(status);
    output.line("manifest: ", manifestFileName(state.manifestId));
    writeCounters(state, output);
    const bool hasTables = writeTables(state, paths, output);
    writeBlobFiles(paths, output);
    const bool hasLogs = writeLogs(state, paths, output);
    return hasTables && hasLogs ? kExitOk : fail(kExitDamaged, "damaged: " + paths.rootPath);
}

} // namespace znstore
