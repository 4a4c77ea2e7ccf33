// The commands that open a store to write to it.

#include "Commands.h"
#include "Escape.h"
#include "Exit.h"
#include "JsonLines.h"
#include "Progress.h"
#include "core/storage/embeddeddb/Manifest_.h"
#include "core/storage/embeddeddb/ZnEmbeddedDb.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <string>

namespace znstore {

namespace {

constexpr std::size_t kBatchRecords = 1000;
constexpr std::size_t kBatchBytes = 1024 * 1024;

ZnEmbeddedDbStatus openToWrite(ZnEmbeddedDb* store, const Arguments& arguments, bool createIfMissing) {
    ZnEmbeddedDbOptions options;
    options.createIfMissing = createIfMissing;
    options.notifyChanges = true;
    return store->open(arguments.text("DIR"), options);
}

ZnEmbeddedDbDurability durabilityOf(const Arguments& arguments) {
    return arguments.has("--sync") ? ZnEmbeddedDbDurability::Synced : ZnEmbeddedDbDurability::Default;
}

/// 0, or the exit code of what was said on standard error.
int readInput(std::string* bytes) {
    std::string chunk(64 * 1024, '\0');
    while (std::cin.good() && bytes->size() <= ZnEmbeddedDb::kMaxValueBytes) {
        std::cin.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        bytes->append(chunk, 0, static_cast<std::size_t>(std::cin.gcount()));
    }
    if (std::cin.bad())
        return fail(kExitIo, "cannot read standard input");
    return bytes->size() <= ZnEmbeddedDb::kMaxValueBytes ? kExitOk : fail(kExitUsage, "the value is longer than 1 GiB");
}

int readValue(std::string_view text, std::string* value) {
    if (text == "-")
        return readInput(value);
    ZnString errorText;
    return unescape(text, value, &errorText) ? kExitOk : fail(kExitUsage, "VALUE: " + errorText);
}

int readIndexKeys(const Arguments& arguments, ZnEmbeddedDbIndexKeys* indexKeys) {
    for (const std::string& text : arguments.values("--index")) {
        const std::size_t nameBytes = std::min(text.find('='), text.size());
        const std::string name = text.substr(0, nameBytes);
        ZnString errorText = "not NAME=SECONDARYKEY";
        std::string secondaryKey;
        if (nameBytes == text.size() || !znEmbeddedDbDetail::isIndexName(name) ||
            !unescape(std::string_view(text).substr(nameBytes + 1), &secondaryKey, &errorText))
            return fail(kExitUsage, "--index " + ZnString(text) + ": " + errorText);
        (*indexKeys)[ZnString(name)].append(ZnByteArray(secondaryKey));
    }
    return kExitOk;
}

/// Takes lines, and writes the records in them in batches.
///
/// Thread: one. Borrowed: everything that it is made of.
class Loader {
public:
    Loader(ZnEmbeddedDb& store, ZnString inputName, ZnEmbeddedDbDurability durability)
        : store_(store), inputName_(std::move(inputName)), durability_(durability), progress_("load") {}

    /// 0, or the exit code of what was said on standard error.
    int load(std::istream& input) {
        for (std::string line; std::getline(input, line);) {
            ++lineNumber_;
            if (const int exitCode = take_(line); exitCode != kExitOk)
                return exitCode;
        }
        if (const int exitCode = commit_(); exitCode != kExitOk)
            return exitCode;
        return input.bad() ? fail(kExitIo, "cannot read " + inputName_ + soFar_()) : kExitOk;
    }

private:
    int take_(std::string_view line) {
        if (line.find_first_not_of(" \t\r") == std::string_view::npos)
            return kExitOk;
        ZnEmbeddedDbBatch::Operation put;
        ZnString errorText;
        if (!parseRecordJson(line, &put, &errorText)) {
            const int exitCode = commit_();
            return exitCode != kExitOk ? exitCode : fail(kExitUsage, place_(lineNumber_) + errorText + soFar_());
        }
        if (batch_.size() == 0)
            firstLine_ = lineNumber_;
        batchBytes_ += line.size();
        batch_.put(put.key, put.value, std::move(put.indexKeys));
        return batch_.size() < kBatchRecords && batchBytes_ < kBatchBytes ? kExitOk : commit_();
    }

    int commit_() {
        if (batch_.size() == 0)
            return kExitOk;
        const ZnEmbeddedDbStatus status = store_.write(batch_, durability_);
        if (!status.isOk())
            return fail({status.code(), place_(firstLine_) + "from this line on: " + status.message() + soFar_()});
        recordCount_ += batch_.size();
        batch_.clear();
        batchBytes_ = 0;
        progress_.show(recordCount_);
        return kExitOk;
    }

    ZnString place_(std::uint64_t lineNumber) const { return inputName_ + ":" + ZnString::number(lineNumber) + ": "; }
    ZnString soFar_() const { return "; the " + ZnString::number(recordCount_) + " records before are in the store"; }

    ZnEmbeddedDb& store_;
    const ZnString inputName_;
    const ZnEmbeddedDbDurability durability_;
    Progress progress_;
    ZnEmbeddedDbBatch batch_;
    std::size_t batchBytes_ = 0;
    std::uint64_t lineNumber_ = 0;
    std::uint64_t firstLine_ = 0; // of the batch
    std::uint64_t recordCount_ = 0;
};

} // namespace

int runPut(const Arguments& arguments, Output&) {
    std::string value;
    ZnEmbeddedDbIndexKeys indexKeys;
    if (const int exitCode = readIndexKeys(arguments, &indexKeys); exitCode != kExitOk)
        return exitCode;
    if (const int exitCode = readValue(arguments.value("VALUE"), &value); exitCode != kExitOk)
        return exitCode;
    ZnEmbeddedDb store;
    if (const auto status = openToWrite(&store, arguments, !arguments.has("--no-create")); !status.isOk())
        return failToOpen(status);
    return fail(store.put(arguments.bytes("KEY"), value, indexKeys, durabilityOf(arguments)));
}

int runRemove(const Arguments& arguments, Output&) {
    ZnEmbeddedDb store;
    if (const auto status = openToWrite(&store, arguments, false); !status.isOk())
        return failToOpen(status);
    return fail(store.remove(arguments.bytes("KEY"), durabilityOf(arguments)));
}

int runLoad(const Arguments& arguments, Output&) {
    const ZnString path = arguments.text("FILE");
    const bool isFile = !path.isEmpty() && path != "-";
    std::ifstream file;
    if (isFile)
        file.open(path.str(), std::ios::binary);
    if (isFile && !file.is_open()) // before the store is made
        return fail(kExitIo, "cannot open " + path);
    ZnEmbeddedDb store;
    if (const auto status = openToWrite(&store, arguments, !arguments.has("--no-create")); !status.isOk())
        return failToOpen(status);
    std::ios::sync_with_stdio(false); // one byte at a time otherwise
    return Loader(store, isFile ? path : "standard input", durabilityOf(arguments)).load(isFile ? file : std::cin);
}

} // namespace znstore
