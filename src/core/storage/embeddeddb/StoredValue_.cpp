#include "core/storage/embeddeddb/StoredValue_.h"

#include "core/storage/embeddeddb/LittleEndian_.h"
#include "core/types/ZnAssert.h"

#include <utility>

namespace znEmbeddedDbDetail {

namespace {

constexpr std::uint8_t kInlineStorage = 0;
constexpr std::uint8_t kExternalStorage = 1;

bool readBlobRef(ByteReader_* reader, BlobRef_* blob) noexcept {
    blob->valid = true;
    return reader->read(&blob->blobFileId) && reader->read(&blob->offset) && reader->read(&blob->size) &&
           reader->read(&blob->crc32) && reader->read(&blob->flags);
}

/// Calls `beginIndex(name)` for every index, and after it `addKey(name, key)` for each of its keys. False for what is
/// no metadata, found perhaps after some of the calls. Counts from the bytes only end loops, and every turn of a loop
/// uses up bytes: nothing is reserved by them.
template <typename BeginIndex, typename AddKey>
bool walkIndexKeys(std::string_view metadata, BeginIndex beginIndex, AddKey addKey) {
    ByteReader_ reader(metadata);
    std::uint32_t indexCount = 0;
    std::string_view name;
    if (!reader.read(&indexCount))
        return false;
    for (std::uint32_t index = 0; index < indexCount; ++index) {
        const std::string_view lastName = name;
        std::uint32_t keyCount = 0;
        if (!reader.readSized(&name) || (index > 0 && name <= lastName) || !reader.read(&keyCount))
            return false;
        beginIndex(name);
        for (std::string_view key; keyCount > 0; --keyCount) {
            if (!reader.readSized(&key))
                return false;
            addKey(name, key);
        }
    }
    return reader.isAtEnd();
}

void appendMetadata(const IndexKeys_& indexKeys, std::string* out) {
    const std::size_t lengthAt = out->size();
    appendLe(out, std::uint32_t(0)); // known below
    appendLe(out, static_cast<std::uint32_t>(indexKeys.size()));
    for (const auto& [name, keys] : indexKeys) {
        appendSized(out, name.view());
        appendLe(out, static_cast<std::uint32_t>(keys.size()));
        for (const ZnByteArray& key : keys)
            appendSized(out, key.view());
    }
    const std::size_t metadataBytes = out->size() - lengthAt - sizeof(std::uint32_t);
    storeLe(out->data() + lengthAt, static_cast<std::uint32_t>(metadataBytes));
}

void appendBlobRef(const BlobRef_& blob, std::string* out) {
    ZN_ASSERT(blob.valid);
    appendLe(out, blob.blobFileId);
    appendLe(out, blob.offset);
    appendLe(out, blob.size);
    appendLe(out, blob.crc32);
    appendLe(out, blob.flags);
}

} // namespace

bool parseStoredValue(std::string_view bytes, StoredValueView_* view) noexcept {
    ByteReader_ reader(bytes);
    std::uint8_t storage = 0;
    std::string_view metadata;
    std::string_view value;
    BlobRef_ blob;
    if (!reader.read(&storage) || storage > kExternalStorage || !reader.readSized(&metadata))
        return false;
    const bool isInline = storage == kInlineStorage;
    if (!(isInline ? reader.readSized(&value) : readBlobRef(&reader, &blob)) || !reader.isAtEnd())
        return false;
    view->isInline = isInline; // field by field: reads of the whole would wait for the writes of its parts
    view->metadata = metadata;
    view->value = value;
    view->blob = blob;
    return true;
}

bool decodeIndexKeys(std::string_view metadata, IndexKeys_* keys) {
    IndexKeys_ found;
    ZnVector<ZnByteArray>* ofIndex = nullptr;
    const auto beginIndex = [&](std::string_view name) { ofIndex = &found.slotNearEnd(ZnString(name)); };
    const auto addKey = [&](std::string_view, std::string_view key) { ofIndex->append(ZnByteArray(key)); };
    if (!walkIndexKeys(metadata, beginIndex, addKey))
        return false;
    *keys = std::move(found);
    return true;
}

bool checkIndexKeys(std::string_view metadata) noexcept {
    constexpr std::string_view kNoKeys("\0\0\0\0", 4);
    return metadata == kNoKeys || walkIndexKeys(
                                      metadata, [](std::string_view) {}, [](std::string_view, std::string_view) {});
}

bool hasIndexKey(std::string_view metadata, std::string_view indexName, std::string_view key) noexcept {
    bool isFound = false;
    const auto compareKey = [&](std::string_view name, std::string_view found) {
        isFound = isFound || (found == key && name == indexName);
    };
    return walkIndexKeys(
               metadata, [](std::string_view) {}, compareKey) &&
           isFound;
}

bool decodeStoredValue(const char* bytes, std::size_t byteCount, ValueEntry_* entry) {
    StoredValueView_ view;
    IndexKeys_ indexKeys;
    if (!parseStoredValue({bytes, byteCount}, &view) || !decodeIndexKeys(view.metadata, &indexKeys))
        return false;
    entry->inlineValue = view.isInline;
    entry->value = ZnByteArray(view.value);
    entry->blob = view.blob;
    entry->indexKeys = std::move(indexKeys);
    return true;
}

void encodeInlineValue(std::string_view value, const IndexKeys_& indexKeys, std::string* out) {
    appendLe(out, kInlineStorage);
    appendMetadata(indexKeys, out);
    appendSized(out, value);
}

void encodeBlobValue(const BlobRef_& blob, const IndexKeys_& indexKeys, std::string* out) {
    appendLe(out, kExternalStorage);
    appendMetadata(indexKeys, out);
    appendBlobRef(blob, out);
}

void encodeInlineValueWith(std::string_view metadata, std::string_view value, std::string* out) {
    appendLe(out, kInlineStorage);
    appendSized(out, metadata);
    appendSized(out, value);
}

void encodeBlobValueWith(std::string_view metadata, const BlobRef_& blob, std::string* out) {
    appendLe(out, kExternalStorage);
    appendSized(out, metadata);
    appendBlobRef(blob, out);
}

void encodeStoredValue(const ValueEntry_& entry, std::string* out) {
    ZN_ASSERT(!entry.tombstone);
    if (entry.inlineValue)
        encodeInlineValue(entry.value.view(), entry.indexKeys, out);
    else
        encodeBlobValue(entry.blob, entry.indexKeys, out);
}

} // namespace znEmbeddedDbDetail
