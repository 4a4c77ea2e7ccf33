#include "core/storage/StoreViewFixture.h"

#include "core/storage/embeddeddb/IndexKey_.h"
#include "core/storage/embeddeddb/MemtableFlush_.h"

#include <gtest/gtest.h>

using namespace znEmbeddedDbDetail;

namespace {

constexpr std::size_t kLargestInline = 20;

ZnByteArray indexKeyOf(std::string_view secondary, std::string_view primary) {
    std::string key;
    appendIndexKey(&key, secondary, primary);
    return ZnByteArray(key);
}

} // namespace

void StoreViewFixture::put(const std::string& key, const std::string& value, const Colors& colors, bool retires) {
    ValueEntry_ entry = inlineEntry(value);
    for (const std::string& color : colors)
        entry.indexKeys["color"].append(ZnByteArray(color));
    insert_(key, entry, colors, retires);
    model[key] = {key, value, lastSequence, colors};
}

void StoreViewFixture::remove(const std::string& key, bool retires) {
    ValueEntry_ entry;
    entry.tombstone = true;
    insert_(key, entry, {}, retires);
    model.erase(key);
}

void StoreViewFixture::insert_(const std::string& key, ValueEntry_ entry, const Colors& colors, bool retires) {
    const MemtableWriteScope_ scope(active->lock);
    entry.sequence = ++lastSequence;
    if (const auto old = model.find(key); old != model.end() && retires)
        for (const std::string& color : old->second.colors)
            if (colors.count(color) == 0)
                active->table.insertIndex("color", indexKeyOf(color, key).view(), {true, lastSequence});
    for (const std::string& color : colors)
        active->table.insertIndex("color", indexKeyOf(color, key).view(), {false, lastSequence});
    active->table.insert(key, entry);
}

void StoreViewFixture::seal() {
    sealed.insert(sealed.begin(), active);
    active = std::make_shared<SharedMemtable_>();
}

void StoreViewFixture::flush() {
    MemtableFlush_ flush(files, paths, *counters, {0, kLargestInline, options, [this] { return ++lastId; }},
                         {sealed.back()});
    ASSERT_EQ(flush.run(), kOk);
    for (const auto& table : flush.tables()) {
        const bool isPrimary = table->meta().kind == kPrimaryTable;
        TableList_& list = isPrimary ? tables.primaryView : tables.indexViews["color"];
        list.insert(list.begin(), table);
        if (isPrimary && tables.largestPrimaryKey < table->lastKey())
            tables.largestPrimaryKey = table->lastKey();
    }
    sealed.pop_back();
}

void StoreViewFixture::compact(TableList_* list, std::size_t count) {
    const std::size_t kept = list->size() - count;
    std::map<std::string, TableRecord_> newest;
    for (std::size_t index = kept; index < list->size(); ++index) {
        std::vector<TableRecord_> records;
        ASSERT_TRUE((*list)[index]->readAllRecords(&records));
        for (const TableRecord_& record : records)
            newest.emplace(record.key.view(), record); // the newest table comes first
    }
    std::vector<TableRecord_> merged;
    for (const auto& [key, record] : newest)
        if (kept > 0 || record.type != kTombstoneRecord)
            merged.push_back(record);
    const std::int32_t kind = list == &tables.primaryView ? kPrimaryTable : kIndexTable;
    for (; list->size() > kept; list->pop_back())
        files.remove(list->back()->path());
    if (!merged.empty())
        list->push_back(writeTable_(kind, 1, merged));
}

void StoreViewFixture::addTable(std::int32_t kind, std::int32_t level, const std::vector<TableRecord_>& records) {
    TableList_& list = kind == kPrimaryTable ? tables.primaryView : tables.indexViews["color"];
    list.insert(list.begin(), writeTable_(kind, level, records));
}

std::shared_ptr<const TableHandle_> StoreViewFixture::writeTable_(std::int32_t kind, std::int32_t level,
                                                                  const std::vector<TableRecord_>& records) {
    TableMeta_ meta;
    meta.kind = kind;
    meta.level = level;
    meta.fileId = ++lastId;
    meta.indexName = kind == kPrimaryTable ? "" : "color";
    EXPECT_EQ(writeTable(files, paths.tempDir, paths.tablesDir, &meta, records), kOk);
    const auto table = std::make_shared<TableHandle_>();
    Status status;
    EXPECT_TRUE(table->open(files, paths.rootPath, meta, options, &status)) << status.message();
    if (kind == kPrimaryTable && tables.largestPrimaryKey < table->lastKey())
        tables.largestPrimaryKey = table->lastKey();
    return table;
}

ReadViewPtr_ StoreViewFixture::view(bool withActive) {
    if (!withActive)
        seal();
    auto view = std::make_shared<ReadView_>();
    view->active = withActive ? active : nullptr;
    view->sealed = sealed;
    view->tables = std::make_shared<TableViews_>(tables);
    view->counters = counters;
    view->blobs = std::make_shared<BlobFiles_>(files, paths.blobsDir, 2, counters);
    return view;
}
