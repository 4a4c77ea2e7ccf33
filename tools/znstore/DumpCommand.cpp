// Writes one file of a store in readable form.

#include "Commands.h"
#include "DumpText.h"
#include "Escape.h"
#include "Exit.h"
#include "core/storage/embeddeddb/FileNames_.h"
#include "core/storage/embeddeddb/TableFormat_.h"

#include <algorithm>

namespace znstore {

namespace {

using namespace znEmbeddedDbDetail;

constexpr std::uint64_t kBlobLineBytes = 64;
constexpr std::uint64_t kMaxTextBytes = 1024 * 1024 * 1024; // of a manifest, far beyond any

void dumpManifest(DumpFile& file) {
    std::string_view bytes;
    ManifestState_ state;
    ZnString error = "too large for a manifest";
    if (file.size() > kMaxTextBytes || !file.read(0, file.size(), &bytes) || !decodeManifest(bytes, &state, &error)) {
        file.output().writeEscaped(bytes);
        file.output().write('\n');
        file.damage(0, ("invalid manifest, " + error).data());
        return;
    }
    file.output().line("manifest");
    writeCounters(state, file.output());
    file.output().line("tables: ", ZnString::number(state.tables.size()));
    for (const TableMeta_& table : state.tables)
        file.output().line("  ", tableText(table), "\tblob file ", ZnString::number(table.blobFileId));
}

void dumpCurrent(DumpFile& file) {
    std::string_view bytes;
    if (!file.read(0, std::min<std::uint64_t>(file.size(), 256), &bytes))
        return;
    const ZnString name(bytes.substr(0, bytes.find('\n')));
    file.output().write("in force: ");
    file.output().writeEscaped(name.view());
    file.output().write('\n');
    const std::uint64_t id = parseFileId(name, kManifestPrefix, kManifestSuffix);
    if (file.size() != bytes.size() || bytes != (manifestFileName(id) + "\n").view())
        file.damage(0, "not the name of one manifest and a line feed");
}

void dumpBlobFile(DumpFile& file) {
    file.output().line("blob file\t", ZnString::number(file.size()),
                       " bytes: values back to back; tables tell where each begins");
    std::string_view bytes;
    for (std::uint64_t offset = 0; offset < file.size() && file.output().isOpen(); offset += bytes.size()) {
        if (!file.read(offset, std::min(kBlobLineBytes, file.size() - offset), &bytes))
            return;
        file.output().write(("  " + ZnString::number(offset) + "\t").view());
        file.output().writeEscaped(bytes);
        file.output().write('\n');
    }
}

struct Kind {
    std::string_view namePrefix;
    std::string_view nameSuffix;
    std::string_view firstBytes; // empty: told by the name alone
    void (*dump)(DumpFile& file);
};
constexpr Kind kKinds[] = {
    {"L", ".sst", kTableMagic, dumpTable},
    {kWalPrefix, kWalSuffix, "ZNDBWAL1", dumpLog},
    {kManifestPrefix, kManifestSuffix, "{\"activeWalId\"", dumpManifest},
    {kBlobPrefix, kBlobSuffix, "", dumpBlobFile},
    {kCurrentFileName, "", kManifestPrefix, dumpCurrent},
};

/// By the name, so that a file with a damaged beginning is still dumped as what it is. Null for no file of a store.
const Kind* kindOf(std::string_view name, std::string_view firstBytes) {
    for (const Kind& kind : kKinds)
        if (name.starts_with(kind.namePrefix) && name.ends_with(kind.nameSuffix))
            return &kind;
    for (const Kind& kind : kKinds)
        if (!kind.firstBytes.empty() && firstBytes.starts_with(kind.firstBytes))
            return &kind;
    return nullptr;
}

} // namespace

int runDump(const Arguments& arguments, Output& output) {
    const ZnString path = arguments.text("FILE");
    RandomAccessFile_ input(znStorageFiles());
    ZnString error;
    if (!input.open(path, RandomAccessFile_::Mode::ReadOnly, &error))
        return fail(kExitIo, error + ": " + path);
    DumpFile file(input, output);
    std::string_view firstBytes;
    if (!file.read(0, std::min<std::uint64_t>(file.size(), 16), &firstBytes))
        return file.exitCode();
    const Kind* kind = kindOf(nameOf(path).view(), firstBytes);
    if (kind == nullptr)
        return fail(kExitUsage, "neither name nor content is that of a file of a store: " + path);
    kind->dump(file);
    return file.exitCode() == kExitDamaged ? fail(kExitDamaged, "damaged: " + path) : file.exitCode();
}

} // namespace znstore
