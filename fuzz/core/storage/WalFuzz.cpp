#include "core/storage/MemoryFiles.h"
#include "core/storage/embeddeddb/Crc32_.h"
#include "core/storage/embeddeddb/WalReader_.h"
#include "core/types/ZnAssert.h"

#include <cstdint>

using namespace znEmbeddedDbDetail;

namespace {

/// Makes the checksums of the header and of the frames right, as far as one leads to the next.
void repairChecksums(std::string* bytes) {
    if (bytes->size() < kWalHeaderBytes)
        return;
    storeLe(bytes->data() + 16, std::uint64_t(1));
    storeLe(bytes->data() + 44, crc32(std::string_view(*bytes).substr(0, 44)));
    const auto salt = loadLe<std::uint64_t>(bytes->data() + 32);
    for (std::size_t offset = kWalHeaderBytes; bytes->size() - offset >= kWalFrameHeaderBytes;) {
        const std::string_view rest = std::string_view(*bytes).substr(offset);
        const std::size_t frameBytes = kWalFrameHeaderBytes + loadLe<std::uint32_t>(rest.data() + 8);
        if (frameBytes > rest.size())
            return;
        storeLe(bytes->data() + offset + 4, walFrameCrc(salt, rest.substr(0, frameBytes)));
        offset += frameBytes;
    }
}

/// Whoever writes the operations of a frame gets the frame, if its stored values are what a store writes.
void checkWritingAgain(const WalReader_& reader, std::string_view frame) {
    WalBatch_ batch;
    WalOperationReader_ operations = reader.operations();
    for (WalOperation_ operation; operations.next(&operation);) {
        RetiredKeys_ retired;
        ValueEntry_ entry;
        std::string stored;
        ZN_ASSERT(decodeRetiredKeys(operation, &retired));
        if (operation.isRemove) {
            batch.remove(operation.key, retired);
            continue;
        }
        if (!decodeStoredValue(operation.storedValue.data(), operation.storedValue.size(), &entry) ||
            !entry.inlineValue)
            return;
        encodeStoredValue(entry, &stored);
        if (stored != operation.storedValue)
            return;
        batch.put(operation.key, entry.value.view(), entry.indexKeys, retired);
    }
    ZN_ASSERT(operations.isComplete());
    ZN_ASSERT(batch.seal(reader.header().salt, reader.frame().firstSequence, reader.frame().durableSequence) == frame);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t byteCount) {
    std::string bytes(reinterpret_cast<const char*>(data), byteCount);
    repairChecksums(&bytes);
    MemoryFiles files;
    files.put("/w/WAL-1.log", bytes);
    WalReader_ reader(files);
    ZN_ASSERT(reader.open("/w", 1).isOk());
    std::uint64_t goodBytes = reader.goodBytes();
    std::uint64_t lastSequence = reader.lastSequence();
    WalReader_::Step step = reader.next();
    for (; step == WalReader_::Step::Frame; step = reader.next()) {
        ZN_ASSERT(reader.frame().firstSequence > lastSequence);
        checkWritingAgain(reader, std::string_view(bytes).substr(goodBytes, reader.goodBytes() - goodBytes));
        goodBytes = reader.goodBytes();
        lastSequence = reader.lastSequence();
    }
    ZN_ASSERT(step != WalReader_::Step::Failed);
    ZN_ASSERT((step == WalReader_::Step::End) == (reader.hasHeader() && goodBytes == bytes.size()));
    if (step == WalReader_::Step::Invalid)
        ZN_ASSERT(reader.classifyTail(0) != WalReader_::Tail::Failed);
    return 0;
}
