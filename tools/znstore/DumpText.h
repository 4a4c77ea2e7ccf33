#pragma once

#include "Output.h"
#include "core/storage/embeddeddb/Manifest_.h"
#include "core/storage/embeddeddb/RandomAccessFile_.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace znstore {

/// The bare name in a path.
ZnString nameOf(const ZnString& path);
/// Eight hex digits.
ZnString crcText(std::uint32_t crc);
/// A table as its manifest tells of it: name, kind, level, records, sequences, between tabs.
ZnString tableText(const znEmbeddedDbDetail::TableMeta_& table);
/// The numbers of a manifest, one a line.
void writeCounters(const znEmbeddedDbDetail::ManifestState_& state, Output& output);
/// A stored value, with where it lies and its secondary keys; behind a tab each. False for bytes that are none, of
/// which nothing is written.
bool writeStoredValue(std::string_view bytes, Output& output);

/// One file that is written out in readable form, and what is found wrong with it on the way.
///
/// Thread: one. Owner: the dump command, as a local. Views from read() are good until the next call.
class DumpFile {
public:
    DumpFile(const znEmbeddedDbDetail::RandomAccessFile_& file, Output& output) : file_(file), output_(output) {}

    const znEmbeddedDbDetail::RandomAccessFile_& file() const noexcept { return file_; }
    Output& output() noexcept { return output_; }
    std::uint64_t size() const noexcept { return file_.size(); }
    /// False for a range that is not in the file as a whole, and, after a word on it, for what cannot be read.
    bool read(std::uint64_t offset, std::uint64_t byteCount, std::string_view* bytes);
    /// Writes the line. Always false.
    bool damage(std::uint64_t offset, const char* reason);
    /// 0, or the exit code of the worst that was found.
    int exitCode() const noexcept { return exitCode_; }

private:
    const znEmbeddedDbDetail::RandomAccessFile_& file_;
    Output& output_;
    std::string window_;
    int exitCode_ = 0;
};

void dumpTable(DumpFile& file);
void dumpLog(DumpFile& file);

} // namespace znstore
