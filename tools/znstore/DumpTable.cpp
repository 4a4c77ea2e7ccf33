#include "DumpText.h"
#include "core/storage/embeddeddb/BloomFilter_.h"
#include "core/storage/embeddeddb/Crc32_.h"
#include "core/storage/embeddeddb/IndexKey_.h"
#include "core/storage/embeddeddb/TableFormat_.h"
#include "core/storage/embeddeddb/TableMeta_.h"
#include "core/storage/embeddeddb/TableRecord_.h"

#include <algorithm>
#include <string>

namespace znstore {

namespace {

using namespace znEmbeddedDbDetail;

const char* typeText(std::uint32_t type) {
    return type == kTombstoneRecord ? "\tremove\t" : type == kBlobRecord ? "\tblob\t" : "\tput\t";
}

/// Goes through a table from front to back, and over what damage it can.
class TableDump {
public:
    explicit TableDump(DumpFile& file) : file_(file), output_(file.output()) {}

    void run() {
        readFooter_();
        if (writeHeader_())
            writeBlocks_();
        if (!hasFooter_) {
            file_.damage(file_.size() - std::min<std::uint64_t>(file_.size(), kTableFooterBytes),
                         "no footer, so nothing tells where the sparse index is");
            return;
        }
        writeSparseIndex_();
        writeFilter_();
        writeFooter_();
    }

private:
    /// Says nothing: what it finds is only needed before its turn.
    void readFooter_() {
        std::string_view bytes;
        std::string_view magic;
        if (file_.size() < kTableFooterBytes ||
            !file_.read(file_.size() - kTableFooterBytes, kTableFooterBytes, &bytes))
            return;
        footerOffset_ = file_.size() - kTableFooterBytes;
        ByteReader_ reader(bytes);
        hasFooter_ = reader.readBytes(kTableFooterMagic.size(), &magic) && magic == kTableFooterMagic &&
                     reader.read(&sparseOffset_) && reader.read(&bloomOffset_) && sparseOffset_ <= bloomOffset_ &&
                     bloomOffset_ <= footerOffset_;
    }

    /// False when blocks cannot be found behind it.
    bool writeHeader_() {
        std::string_view bytes;
        if (!file_.read(0, kTableHeaderBytes, &bytes))
            return file_.damage(file_.size(), "the file ends within the header");
        if (!bytes.starts_with(kTableMagic))
            file_.damage(0, "not the first bytes of a table");
        const auto version = loadLe<std::uint32_t>(bytes.data() + 8);
        kind_ = loadLe<std::uint32_t>(bytes.data() + 12);
        const auto minSequence = loadLe<std::uint64_t>(bytes.data() + 16);
        const auto maxSequence = loadLe<std::uint64_t>(bytes.data() + 24);
        const auto recordCount = loadLe<std::uint64_t>(bytes.data() + 32);
        const auto nameBytes = loadLe<std::uint32_t>(bytes.data() + 40);
        if (version != kTableVersion)
            file_.damage(8, "a version that is not known");
        if (!file_.read(kTableHeaderBytes, nameBytes, &bytes))
            return file_.damage(40, "an index name that does not fit into the file");
        blocksOffset_ = kTableHeaderBytes + nameBytes;
        output_.write("table\t");
        output_.write(kind_ == kPrimaryTable ? "primary" : kind_ == kIndexTable ? "index " : "of no known kind ");
        output_.writeEscaped(bytes);
        output_.line("\t", ZnString::number(recordCount), " records\tsequences ", ZnString::number(minSequence), " to ",
                     ZnString::number(maxSequence));
        return true;
    }

    void writeBlocks_() {
        const std::uint64_t end = hasFooter_ ? sparseOffset_ : file_.size();
        for (std::uint64_t offset = blocksOffset_; offset != end && output_.isOpen();) {
            std::string_view bytes;
            if (offset > end || end - offset < kBlockHeaderBytes || !file_.read(offset, kBlockHeaderBytes, &bytes)) {
                file_.damage(offset, "no room for a block");
                return;
            }
            const std::uint64_t payloadBytes = loadLe<std::uint32_t>(bytes.data());
            const auto crc = loadLe<std::uint32_t>(bytes.data() + 4);
            if (payloadBytes > end - offset - kBlockHeaderBytes) {
                file_.damage(offset, "a block longer than what is left");
                return;
            }
            if (!file_.read(offset + kBlockHeaderBytes, payloadBytes, &bytes))
                return;
            const bool isWhole = crc32(bytes) == crc;
            if (!isWhole && !hasFooter_) // it may as well be the sparse index
                return;
            writeBlock_(offset, bytes, isWhole);
            offset += kBlockHeaderBytes + payloadBytes;
        }
    }

    void writeBlock_(std::uint64_t offset, std::string_view payload, bool isWhole) {
        output_.line("block at ", ZnString::number(offset), "\t", ZnString::number(payload.size()), " bytes");
        if (!isWhole)
            file_.damage(offset, "block checksum mismatch; its records may not be what was written");
        ByteReader_ reader(payload);
        RecordView_ record;
        while (!reader.isAtEnd()) {
            const std::uint64_t recordOffset = offset + kBlockHeaderBytes + payload.size() - reader.remaining();
            if (!readRecord(&reader, &record)) {
                file_.damage(recordOffset, "no record; the rest of the block is left out");
                return;
            }
            if (!writeRecord_(record)) {
                output_.write('\n');
                file_.damage(recordOffset, "the record's key or value does not decode");
            } else {
                output_.write('\n');
            }
        }
    }

    bool writeRecord_(const RecordView_& record) {
        output_.write(("  " + ZnString::number(record.sequence) + typeText(record.type)).view());
        if (kind_ == kIndexTable) {
            std::string secondary;
            std::string_view primary;
            if (!splitIndexKey(record.key, &secondary, &primary)) {
                output_.writeEscaped(record.key);
                return false;
            }
            output_.writeEscaped(secondary);
            output_.write('\t');
            output_.writeEscaped(primary);
            return true;
        }
        output_.writeEscaped(record.key);
        return record.type == kTombstoneRecord || writeStoredValue(record.value, output_);
    }

    void writeSparseIndex_() {
        std::string_view bytes;
        std::uint32_t entryCount = 0;
        if (!file_.read(sparseOffset_, bloomOffset_ - sparseOffset_, &bytes))
            return;
        ByteReader_ reader(bytes);
        if (!reader.read(&entryCount)) {
            file_.damage(sparseOffset_, "no sparse index");
            return;
        }
        output_.line("sparse index at ", ZnString::number(sparseOffset_), "\t", ZnString::number(entryCount),
                     " blocks");
        for (std::uint32_t index = 0; index < entryCount; ++index) {
            const std::uint64_t entryOffset = bloomOffset_ - reader.remaining();
            std::string_view key;
            std::uint64_t blockOffset = 0;
            std::uint32_t blockBytes = 0;
            if (!reader.readSized(&key) || !reader.read(&blockOffset) || !reader.read(&blockBytes)) {
                file_.damage(entryOffset, "no entry of the sparse index");
                return;
            }
            output_.write(
                ("  block at " + ZnString::number(blockOffset) + "\t" + ZnString::number(blockBytes) + " bytes\tfrom ")
                    .view());
            output_.writeEscaped(key);
            output_.write('\n');
        }
        if (!reader.isAtEnd())
            file_.damage(bloomOffset_ - reader.remaining(), "bytes behind the sparse index");
    }

    void writeFilter_() {
        std::string_view bytes;
        std::string_view bits;
        std::uint32_t hashCount = 0;
        if (!file_.read(bloomOffset_, footerOffset_ - bloomOffset_, &bytes))
            return;
        ByteReader_ reader(bytes);
        if (!reader.read(&hashCount) || !reader.readSized(&bits) || !reader.isAtEnd() ||
            hashCount != BloomFilter_::kHashCount)
            file_.damage(bloomOffset_, "no filter");
        else
            output_.line("filter at ", ZnString::number(bloomOffset_), "\t", ZnString::number(bits.size()), " bytes");
    }

    void writeFooter_() {
        std::string_view footer;
        std::string_view header;
        if (!file_.read(footerOffset_, kTableFooterBytes, &footer))
            return;
        output_.line("footer at ", ZnString::number(footerOffset_), "\tsparse index ", ZnString::number(sparseOffset_),
                     "\tfilter ", ZnString::number(bloomOffset_));
        const std::string repeated(footer.substr(24)); // the next read takes the view away
        if (!file_.read(0, kTableHeaderBytes, &header))
            return;
        if (repeated != std::string(header.substr(24, 16)) + std::string(header.substr(12, 4)))
            file_.damage(footerOffset_ + 24, "sequence, record count and kind are not those of the header");
    }

    DumpFile& file_;
    Output& output_;
    bool hasFooter_ = false;
    std::uint64_t footerOffset_ = 0;
    std::uint64_t sparseOffset_ = 0;
    std::uint64_t bloomOffset_ = 0;
    std::uint64_t blocksOffset_ = 0;
    std::uint32_t kind_ = 0;
};

} // namespace

void dumpTable(DumpFile& file) {
    TableDump(file).run();
}

} // namespace znstore
