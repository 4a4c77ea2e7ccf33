#include "core/storage/embeddeddb/Manifest_.h"

#include "core/fs/ZnPath.h"
#include "core/storage/embeddeddb/DurableFiles_.h"
#include "core/storage/embeddeddb/FileNames_.h"
#include "core/storage/embeddeddb/RandomAccessFile_.h"
#include "core/types/ZnJsonArray.h"
#include "core/types/ZnJsonDocument.h"
#include "core/types/ZnJsonObject.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <set>
#include <string>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

template <typename Record>
struct NumberMember {
    const char* name;
    std::uint64_t Record::*member;
};

constexpr NumberMember<ManifestState_> kCounters[] = {
    {"manifestId", &ManifestState_::manifestId},
    {"maxSequence", &ManifestState_::maxSequence},
    {"replayFromWalId", &ManifestState_::replayFromWalId},
    {"activeWalId", &ManifestState_::activeWalId},
    {"nextWalId", &ManifestState_::nextWalId},
    {"nextTableId", &ManifestState_::nextTableId},
};

constexpr NumberMember<TableMeta_> kTableNumbers[] = {
    {"fileId", &TableMeta_::fileId},           {"minSequence", &TableMeta_::minSequence},
    {"maxSequence", &TableMeta_::maxSequence}, {"recordCount", &TableMeta_::recordCount},
    {"blobFileId", &TableMeta_::blobFileId},
};

ZnJsonValue jsonOf(std::uint64_t number) {
    return ZnJsonValue(static_cast<long long>(number));
}

ZnJsonObject jsonOf(const TableMeta_& table) {
    ZnJsonObject object;
    for (const auto& [name, member] : kTableNumbers)
        object[name] = jsonOf(table.*member);
    object["kind"] = ZnJsonValue(table.kind);
    object["level"] = ZnJsonValue(table.level);
    object["fileName"] = ZnJsonValue(table.fileName);
    object["indexName"] = ZnJsonValue(table.indexName);
    return object;
}

bool failText(ZnString* errorText, const char* what, std::string_view name) {
    *errorText = ZnString(what) + " \"" + ZnString(name) + "\"";
    return false;
}

bool readNumber(const ZnJsonObject& object, const char* name, std::uint64_t* number, ZnString* errorText) {
    const ZnJsonValue& value = object.value(name);
    if (value.type() != JsonType::Integer || value.toLongLong() < 0)
        return failText(errorText, "no valid number", name);
    *number = static_cast<std::uint64_t>(value.toLongLong());
    return true;
}

/// A number that is `first` or the one above it.
bool readOneOfTwo(const ZnJsonObject& object, const char* name, std::int32_t first, std::int32_t* number,
                  ZnString* errorText) {
    std::uint64_t value = 0;
    if (!readNumber(object, name, &value, errorText))
        return false;
    if (value != static_cast<std::uint64_t>(first) && value != static_cast<std::uint64_t>(first) + 1)
        return failText(errorText, "no valid number", name);
    *number = static_cast<std::int32_t>(value);
    return true;
}

bool readText(const ZnJsonObject& object, const char* name, ZnString* text, ZnString* errorText) {
    const ZnJsonValue& value = object.value(name);
    if (!value.isString())
        return failText(errorText, "no valid text", name);
    *text = ZnString(value.string());
    return true;
}

bool readTable(const ZnJsonValue& value, TableMeta_* table, ZnString* errorText) {
    const ZnJsonObject* object = value.object();
    if (object == nullptr)
        return failText(errorText, "no object in", "tables");
    for (const auto& [name, member] : kTableNumbers)
        if (!readNumber(*object, name, &(table->*member), errorText))
            return false;
    return readOneOfTwo(*object, "kind", kPrimaryTable, &table->kind, errorText) &&
           readOneOfTwo(*object, "level", 0, &table->level, errorText) &&
           readText(*object, "fileName", &table->fileName, errorText) &&
           readText(*object, "indexName", &table->indexName, errorText);
}

/// What must hold between the members of one table and the counters.
bool checkTable(const TableMeta_& table, const ManifestState_& state, ZnString* errorText) {
    const std::string_view name = table.fileName.view();
    if (table.fileName != tableFileName(table.level, table.fileId))
        return failText(errorText, "level and id do not belong to table", name);
    if (table.fileId == 0 || table.fileId >= state.nextTableId || table.blobFileId >= state.nextTableId)
        return failText(errorText, "id out of range of table", name);
    if (table.minSequence > table.maxSequence || table.maxSequence > state.maxSequence || table.recordCount == 0)
        return failText(errorText, "sequences or record count out of range of table", name);
    if (table.kind == kPrimaryTable ? !table.indexName.isEmpty() : !isIndexName(table.indexName.view()))
        return failText(errorText, "kind and index name do not belong together of table", name);
    return true;
}

bool checkState(const ManifestState_& state, ZnString* errorText) {
    if (state.replayFromWalId == 0 || state.replayFromWalId > state.activeWalId)
        return failText(errorText, "out of range:", "replayFromWalId");
    if (state.activeWalId >= state.nextWalId)
        return failText(errorText, "out of range:", "activeWalId");
    std::set<std::uint64_t> ids;
    for (const TableMeta_& table : state.tables) {
        if (!checkTable(table, state, errorText))
            return false;
        if (!ids.insert(table.fileId).second)
            return failText(errorText, "listed twice: table", table.fileName.view());
    }
    return true;
}

/// A file that is not there is reported as `ifMissing`.
ZnEmbeddedDbStatus readWholeFile(ZnStorageFiles& files, const ZnString& path, ZnEmbeddedDbStatus::Code ifMissing,
                                 std::string* content) {
    std::unique_ptr<ZnStorageFile> probe;
    bool isNew = false;
    ZnString reason;
    if (const int error = files.open(path, {}, &probe, &isNew); error != 0) {
        failWithCode("CreateFileW failed", error, &reason);
        return ZnEmbeddedDbStatus(error == ENOENT ? ifMissing : ZnEmbeddedDbStatus::IoError, std::move(reason))
            .at(path);
    }
    RandomAccessFile_ file(files);
    if (file.open(path, RandomAccessFile_::Mode::ReadOnly, &reason)) {
        content->resize(static_cast<std::size_t>(file.size()));
        if (file.readAt(0, content->data(), content->size(), &reason))
            return {};
    }
    return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(reason)).at(path);
}

} // namespace

bool isIndexName(std::string_view name) noexcept {
    const auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; };
    const auto isOther = [](char c) { return (c >= '0' && c <= '9') || c == '.' || c == '-'; };
    return !name.empty() && name.size() <= 64 && isLetter(name.front()) &&
           std::all_of(name.begin(), name.end(), [&](char c) { return isLetter(c) || isOther(c); }) && name != "true" &&
           name != "false" && name != "null";
}

ZnString encodeManifest(const ManifestState_& state) {
    ZnJsonArray tables;
    for (const TableMeta_& table : state.tables)
        tables.append(jsonOf(table));
    ZnJsonObject object;
    for (const auto& [name, member] : kCounters)
        object[name] = jsonOf(state.*member);
    object["tables"] = ZnJsonValue(std::move(tables));
    return ZnJsonValue(std::move(object)).toJson();
}

bool decodeManifest(std::string_view text, ManifestState_* state, ZnString* errorText) {
    ZnString error;
    const ZnJsonDocument document = ZnJsonDocument::fromJson(text, &error, JsonReading::Exact);
    if (!error.isEmpty()) {
        *errorText = std::move(error);
        return false;
    }
    const ZnJsonObject* object = document.root().object();
    if (object == nullptr)
        return failText(errorText, "no object in", "the manifest");
    ManifestState_ found;
    for (const auto& [name, member] : kCounters)
        if (!readNumber(*object, name, &(found.*member), errorText))
            return false;
    const ZnJsonArray* tables = object->value("tables").array();
    if (tables == nullptr)
        return failText(errorText, "no array", "tables");
    for (const ZnJsonValue& value : *tables)
        if (!readTable(value, &found.tables.emplace_back(), errorText))
            return false;
    if (!checkState(found, errorText))
        return false;
    *state = std::move(found);
    return true;
}

ZnEmbeddedDbStatus writeManifest(ZnStorageFiles& files, const ZnString& rootPath, ManifestState_* state,
                                 ZnString* syncErrorOut) {
    const ZnString name = manifestFileName(state->manifestId);
    const ZnString current = name + "\n";
    const std::pair<ZnString, ZnString> contents[] = {{joinPath(rootPath, name), encodeManifest(*state)},
                                                      {joinPath(rootPath, kCurrentFileName), current}};
    for (const auto& [path, content] : contents) {
        ZnString error;
        ZnString syncError;
        if (!writeFileAtomic(files, path, content.view(), &error, &syncError))
            return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(error)).at(path);
        if (syncError.isEmpty())
            continue;
        if (syncErrorOut != nullptr)
            *syncErrorOut = syncError;
        // CURRENT must not get to name a manifest whose own name may be lost.
        if (&content == &contents[0].second)
            return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(syncError)).at(path);
    }
    ++state->manifestId;
    return {};
}

ZnEmbeddedDbStatus readCurrent(ZnStorageFiles& files, const ZnString& rootPath, std::uint64_t* manifestId) {
    const ZnString path = joinPath(rootPath, kCurrentFileName);
    std::string content;
    if (auto status = readWholeFile(files, path, ZnEmbeddedDbStatus::NotFound, &content); !status.isOk())
        return status;
    const ZnString name(std::string_view(content).substr(0, content.find('\n')));
    const std::uint64_t id = parseFileId(name, kManifestPrefix, kManifestSuffix);
    if (content != (manifestFileName(id) + "\n").view()) // also for number 0, which stands for what does not parse
        return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::Corruption, "no name of a manifest").at(path);
    *manifestId = id;
    return {};
}

ZnEmbeddedDbStatus readManifest(ZnStorageFiles& files, const ZnString& rootPath, std::uint64_t manifestId,
                                ManifestState_* state) {
    const ZnString path = joinPath(rootPath, manifestFileName(manifestId));
    std::string content;
    if (auto status = readWholeFile(files, path, ZnEmbeddedDbStatus::Corruption, &content); !status.isOk())
        return status;
    ZnString error;
    ManifestState_ found;
    if (!decodeManifest(content, &found, &error))
        return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::Corruption, "invalid manifest, " + error).at(path);
    if (found.manifestId != manifestId)
        return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::Corruption, "manifest bears another number").at(path);
    *state = std::move(found);
    return {};
}

} // namespace znEmbeddedDbDetail
