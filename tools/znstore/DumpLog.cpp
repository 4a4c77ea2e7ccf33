#include "DumpText.h"
#include "core/storage/embeddeddb/WalFrame_.h"

namespace znstore {

namespace {

using namespace znEmbeddedDbDetail;

constexpr const char* kNoFrame = "no frame; the log ends here, or is damaged";

bool writeOperations(const WalFrameHeader_& header, std::string_view payload, Output& output) {
    WalOperationReader_ operations(payload, header.operationCount);
    std::uint64_t sequence = header.firstSequence;
    bool isWhole = true;
    for (WalOperation_ operation; operations.next(&operation); ++sequence) {
        output.write(("  " + ZnString::number(sequence) + (operation.isRemove ? "\tremove\t" : "\tput\t")).view());
        output.writeEscaped(operation.key);
        isWhole &= operation.isRemove || writeStoredValue(operation.storedValue, output);
        RetiredKeys_ retired;
        isWhole &= decodeRetiredKeys(operation, &retired);
        for (const RetiredKey_& key : retired) {
            output.write(("\tretires " + key.indexName + "=").view());
            output.writeEscaped(key.key.view());
        }
        output.write('\n');
    }
    return isWhole && operations.isComplete();
}

/// Gives the length of the frame, or 0 when there is none.
std::uint64_t writeFrame(DumpFile& file, const WalHeader_& log, std::uint64_t offset) {
    std::string_view bytes;
    WalFrameHeader_ header;
    if (!file.read(offset, kWalFrameHeaderBytes, &bytes) || !parseWalFrameHeader(bytes, &header)) {
        file.damage(offset, kNoFrame);
        return 0;
    }
    if (!file.read(offset, header.frameBytes(), &bytes)) {
        file.damage(offset, "a frame longer than what is left: a write cut short, or damage");
        return 0;
    }
    if (walFrameCrc(log.salt, bytes) != header.crc) {
        file.damage(offset, "frame checksum mismatch");
        return 0;
    }
    file.output().line("frame at ", ZnString::number(offset), "\t", ZnString::number(header.operationCount),
                       " operations\tsequences ", ZnString::number(header.firstSequence), " to ",
                       ZnString::number(header.lastSequence()), "\tdurable to ",
                       ZnString::number(header.durableSequence));
    if (!writeOperations(header, bytes.substr(kWalFrameHeaderBytes), file.output()))
        file.damage(offset, "the frame's operations do not decode");
    return header.frameBytes();
}

} // namespace

void dumpLog(DumpFile& file) {
    std::string_view bytes;
    WalHeader_ header;
    if (!file.read(0, kWalHeaderBytes, &bytes) || !decodeWalHeader(bytes, &header)) {
        file.damage(0, "no whole valid header of a log; frames cannot be checked without it");
        return;
    }
    file.output().line("log ", ZnString::number(header.walId), "\tbehind sequence ",
                       ZnString::number(header.previousSequence));
    for (std::uint64_t offset = kWalHeaderBytes; offset < file.size() && file.output().isOpen();) {
        const std::uint64_t frameBytes = writeFrame(file, header, offset);
        if (frameBytes == 0)
            return;
        offset += frameBytes;
    }
}

} // namespace znstore
