#include "DumpText.h"

#include "Escape.h"
#include "Exit.h"
#include "core/storage/embeddeddb/FileNames_.h"
#include "core/storage/embeddeddb/StoredValue_.h"

#include <utility>

namespace znstore {

using namespace znEmbeddedDbDetail;

ZnString nameOf(const ZnString& path) {
    return ZnString(path.view().substr(path.view().rfind('/') + 1)); // npos + 1 is 0
}

ZnString crcText(std::uint32_t crc) {
    char bytes[sizeof(crc)];
    for (std::size_t index = 0; index < sizeof(crc); ++index)
        bytes[index] = static_cast<char>(crc >> (24 - 8 * index));
    std::string text;
    appendHex(&text, {bytes, sizeof(bytes)});
    return ZnString(std::move(text));
}

ZnString tableText(const TableMeta_& table) {
    return table.fileName + (table.kind == kPrimaryTable ? "\tprimary" : "\tindex " + table.indexName) + "\tlevel " +
           ZnString::number(table.level) + "\t" + ZnString::number(table.recordCount) + " records\tsequences " +
           ZnString::number(table.minSequence) + " to " + ZnString::number(table.maxSequence);
}

void writeCounters(const ManifestState_& state, Output& output) {
    const std::pair<const char*, std::uint64_t> counters[] = {
        {"manifestId", state.manifestId},
        {"maxSequence", state.maxSequence},
        {"replayFromWalId", state.replayFromWalId},
        {"activeWalId", state.activeWalId},
        {"nextWalId", state.nextWalId},
        {"nextTableId", state.nextTableId},
    };
    for (const auto& [name, number] : counters)
        output.line("  ", name, " ", ZnString::number(number));
}

bool writeStoredValue(std::string_view bytes, Output& output) {
    StoredValueView_ value;
    IndexKeys_ indexKeys;
    if (!parseStoredValue(bytes, &value) || !decodeIndexKeys(value.metadata, &indexKeys))
        return false;
    output.write('\t');
    if (value.isInline) {
        output.writeEscaped(value.value);
    } else {
        output.write((blobFileName(value.blob.blobFileId) + " at " + ZnString::number(value.blob.offset) + ", " +
                      ZnString::number(value.blob.size) + " bytes, crc32 " + crcText(value.blob.crc32))
                         .view());
    }
    for (const auto& [name, keys] : indexKeys)
        for (const ZnByteArray& key : keys) {
            output.write('\t');
            output.writeEscaped(name.view());
            output.write('=');
            output.writeEscaped(key.view());
        }
    return true;
}

bool DumpFile::read(std::uint64_t offset, std::uint64_t byteCount, std::string_view* bytes) {
    if (offset > size() || byteCount > size() - offset)
        return false;
    ZnString error;
    window_.resize(static_cast<std::size_t>(byteCount));
    if (!file_.readAt(offset, window_.data(), window_.size(), &error)) {
        exitCode_ = fail(kExitIo, error + ": " + file_.path());
        return false;
    }
    *bytes = window_;
    return true;
}

bool DumpFile::damage(std::uint64_t offset, const char* reason) {
    output_.line("damage at ", ZnString::number(offset), ": ", reason);
    if (exitCode_ == kExitOk)
        exitCode_ = kExitDamaged;
    return false;
}

} // namespace znstore
