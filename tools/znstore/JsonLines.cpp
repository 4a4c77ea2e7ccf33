#include "JsonLines.h"

#include "Escape.h"
#include "core/storage/embeddeddb/Manifest_.h"
#include "core/storage/embeddeddb/ZnEmbeddedDb.h"
#include "core/types/ZnJsonArray.h"
#include "core/types/ZnJsonDocument.h"
#include "core/types/ZnJsonObject.h"

#include <algorithm>
#include <utility>

namespace znstore {

namespace {

constexpr const char* kNoText = "neither a string nor {\"hex\": \"pairs of hex digits\"}";

/// Bytes of the character that begins with `first`; 0 for what begins none.
std::size_t characterBytes(unsigned char first) {
    if (first < 0x80)
        return 1;
    if (first < 0xc2)
        return 0;
    return first < 0xe0 ? 2 : first < 0xf0 ? 3 : first < 0xf5 ? 4 : 0;
}

/// Neither overlong nor a surrogate nor above U+10FFFF, which shows in the second byte.
bool isSecondByteFit(unsigned char first, unsigned char second) {
    switch (first) {
    case 0xe0: return second >= 0xa0;
    case 0xed: return second < 0xa0;
    case 0xf0: return second >= 0x90;
    case 0xf4: return second < 0x90;
    default: return true;
    }
}

bool isUtf8(std::string_view bytes) {
    while (!bytes.empty()) {
        const auto first = static_cast<unsigned char>(bytes.front());
        const std::size_t byteCount = characterBytes(first);
        if (byteCount == 0 || byteCount > bytes.size())
            return false;
        const std::string_view rest = bytes.substr(1, byteCount - 1);
        const auto isContinuation = [](char byte) { return (static_cast<unsigned char>(byte) & 0xc0) == 0x80; };
        if (!std::all_of(rest.begin(), rest.end(), isContinuation) ||
            (!rest.empty() && !isSecondByteFit(first, static_cast<unsigned char>(rest.front()))))
            return false;
        bytes.remove_prefix(byteCount);
    }
    return true;
}

void appendText(std::string* out, std::string_view bytes) {
    if (isUtf8(bytes)) {
        ZnString text("\"");
        appendEscapedJson(&text, bytes);
        out->append(text.view());
        out->push_back('"');
        return;
    }
    out->append("{\"hex\":\"");
    appendHex(out, bytes);
    out->append("\"}");
}

bool failText(ZnString* errorText, std::string_view member, const char* reason) {
    *errorText = "\"" + ZnString(member) + "\": " + reason;
    return false;
}

bool readText(const ZnJsonValue& value, std::size_t byteLimit, std::string_view member, ZnByteArray* bytes,
              ZnString* errorText) {
    const ZnJsonObject* object = value.object();
    std::string decoded;
    const bool isHex = object != nullptr && object->size() == 1 && object->value("hex").isString() &&
                       parseHex(object->value("hex").string(), &decoded);
    if (!isHex && !value.isString())
        return failText(errorText, member, kNoText);
    const std::string_view found = isHex ? std::string_view(decoded) : value.string();
    if (found.size() > byteLimit)
        return failText(errorText, member, "too long");
    *bytes = ZnByteArray(found);
    return true;
}

bool readIndexKeys(const ZnJsonValue& value, ZnEmbeddedDbIndexKeys* indexKeys, ZnString* errorText) {
    const ZnJsonObject* indexes = value.object();
    if (indexes == nullptr)
        return failText(errorText, "indexKeys", "no object");
    for (const auto& [name, keys] : *indexes) {
        if (!znEmbeddedDbDetail::isIndexName(name))
            return failText(errorText, name, "no name of an index");
        if (!keys.isArray())
            return failText(errorText, name, "no array");
        ZnVector<ZnByteArray>& found = (*indexKeys)[ZnString(name)];
        for (const ZnJsonValue& key : *keys.array())
            if (!readText(key, ZnEmbeddedDb::kMaxKeyBytes, name, &found.appendNew(), errorText))
                return false;
    }
    return true;
}

bool checkMembers(const ZnJsonObject& record, ZnString* errorText) {
    for (const auto& [name, value] : record)
        if (name != "key" && name != "value" && name != "indexKeys")
            return failText(errorText, name, "no member of a record");
    return true;
}

} // namespace

void appendRecordJson(std::string* out, std::string_view key, std::string_view value,
                      const ZnEmbeddedDbIndexKeys& indexKeys) {
    out->append("{\"key\":");
    appendText(out, key);
    out->append(",\"value\":");
    appendText(out, value);
    out->append(",\"indexKeys\":{");
    const char* separator = "";
    for (const auto& [name, keys] : indexKeys) {
        out->append(std::exchange(separator, ","));
        appendText(out, name.view());
        out->append(":[");
        const char* keySeparator = "";
        for (const ZnByteArray& indexKey : keys) {
            out->append(std::exchange(keySeparator, ","));
            appendText(out, indexKey.view());
        }
        out->push_back(']');
    }
    out->append("}}");
}

bool parseRecordJson(std::string_view line, ZnEmbeddedDbBatch::Operation* put, ZnString* errorText) {
    ZnString error;
    const ZnJsonDocument document = ZnJsonDocument::fromJson(line, &error, JsonReading::Exact);
    if (!error.isEmpty()) {
        *errorText = std::move(error);
        return false;
    }
    const ZnJsonObject* record = document.root().object();
    if (record == nullptr) {
        *errorText = "no JSON object";
        return false;
    }
    ZnEmbeddedDbBatch::Operation found;
    if (!checkMembers(*record, errorText) ||
        !readText(record->value("key"), ZnEmbeddedDb::kMaxKeyBytes, "key", &found.key, errorText) ||
        !readText(record->value("value"), ZnEmbeddedDb::kMaxValueBytes, "value", &found.value, errorText) ||
        (record->contains("indexKeys") && !readIndexKeys(record->value("indexKeys"), &found.indexKeys, errorText)))
        return false;
    *put = std::move(found);
    return true;
}

} // namespace znstore
