// The files of the store: checksums, building a table, opening it, and reading it in order and at random; then reading
// through a view of several tables. Files lie in a temporary directory, so building includes what the disk takes for
// two syncs.

#include "core/storage/embeddeddb/Crc32_.h"
#include "core/storage/embeddeddb/IteratorCore_.h"
#include "core/storage/embeddeddb/PointRead_.h"
#include "core/storage/embeddeddb/TableCursor_.h"
#include "core/storage/embeddeddb/TableHandle_.h"
#include "core/storage/embeddeddb/TableWriter_.h"
#include "core/types/ZnAssert.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <unistd.h>

using namespace znEmbeddedDbDetail;

namespace {

class ScratchDirectory {
public:
    ScratchDirectory() : path_((std::filesystem::temp_directory_path() / "zn-bench-XXXXXX").string()) {
        ZN_ASSERT(::mkdtemp(path_.data()) != nullptr);
    }
    ~ScratchDirectory() {
        std::error_code error;
        std::filesystem::remove_all(path_, error);
    }
    ZnString path(const char* name = "") const { return ZnString(path_ + "/" + name); }

private:
    std::string path_;
};

std::string keyOf(int number) {
    char key[20];
    std::snprintf(key, sizeof(key), "%016d", number);
    return key;
}

std::string storedValue() {
    ValueEntry_ entry;
    entry.inlineValue = true;
    entry.value = ZnByteArray(std::string(100, 'v'));
    std::string bytes;
    encodeStoredValue(entry, &bytes);
    return bytes;
}

/// Writes a table of the records whose number is first, first + step, ... below `end`; their keys are even.
TableMeta_ writeSample(const ScratchDirectory& directory, std::uint64_t fileId, int first, int end, int step = 1) {
    TableMeta_ meta;
    meta.fileId = fileId;
    const std::string value = storedValue();
    TableWriter_ writer(znStorageFiles(), directory.path("tmp"), directory.path("tables"), meta);
    ZN_ASSERT(writer.open().isOk());
    for (int number = first; number < end; number += step)
        ZN_ASSERT(writer.add({keyOf(2 * number), static_cast<std::uint64_t>(number) + 1, kInlineRecord, value}).isOk());
    ZN_ASSERT(writer.finish().isOk());
    return writer.meta();
}

/// A table of `range(0)` records with keys of 16 bytes and values of 100.
struct Sample {
    explicit Sample(const benchmark::State& state)
        : recordCount(static_cast<int>(state.range(0))),
          meta(writeSample(directory, 1, 0, recordCount)),
          table(std::make_shared<TableHandle_>()) {
        open();
    }
    void open(bool verifiesFilters = true) {
        ZnEmbeddedDbStatus status;
        ZN_ASSERT(table->open(znStorageFiles(), directory.path(), meta, {verifiesFilters}, &status));
    }
    ScratchDirectory directory;
    const int recordCount;
    const TableMeta_ meta;
    const std::shared_ptr<TableHandle_> table;
};

void BM_Crc32(benchmark::State& state) {
    const std::string bytes(static_cast<std::size_t>(state.range(0)), 'x');
    for (auto _ : state)
        benchmark::DoNotOptimize(crc32(bytes));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Crc32)->Arg(64)->Arg(4096)->Arg(65536);

void BM_TableWrite(benchmark::State& state) {
    const ScratchDirectory directory;
    for (auto _ : state)
        writeSample(directory, 1, 0, static_cast<int>(state.range(0)));
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetBytesProcessed(state.iterations() * state.range(0) * 149);
}
BENCHMARK(BM_TableWrite)->Arg(200000)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_TableOpen(benchmark::State& state) {
    Sample sample(state);
    for (auto _ : state)
        sample.open(state.range(1) != 0);
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(sample.table->fileBytes()));
}
BENCHMARK(BM_TableOpen)->Args({200000, 1})->Args({200000, 0})->Unit(benchmark::kMillisecond);

void BM_TableScan(benchmark::State& state) {
    Sample sample(state);
    for (auto _ : state) {
        TableCursor_ cursor(sample.table);
        for (cursor.seekToFirst(); cursor.isValid(); cursor.next())
            benchmark::DoNotOptimize(cursor.record().value.data());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_TableScan)->Arg(200000)->Unit(benchmark::kMillisecond);

/// Keys that are there are even; the odd ones are ruled out, most by the filter.
void findRandomKeys(benchmark::State& state, int odd) {
    Sample sample(state);
    std::minstd_rand random(1);
    for (auto _ : state) {
        RecordView_ record;
        const int number = static_cast<int>(random() % static_cast<unsigned>(sample.recordCount - 1));
        benchmark::DoNotOptimize(sample.table->find(keyOf(2 * number + odd), &record));
    }
    state.SetItemsProcessed(state.iterations());
}
void BM_TableFindHit(benchmark::State& state) {
    findRandomKeys(state, 0);
}
BENCHMARK(BM_TableFindHit)->Arg(200000);
void BM_TableFindMiss(benchmark::State& state) {
    findRandomKeys(state, 1);
}
BENCHMARK(BM_TableFindMiss)->Arg(200000);

/// 400000 records in `range(0)` tables, which hold every so manyth record each when `range(1)` is 1, or lie one behind
/// the other. In memory instead, in sealed memtables, when `range(1)` is 2.
struct ViewSample {
    static constexpr int kRecordCount = 400000;

    explicit ViewSample(const benchmark::State& state)
        : tableCount(static_cast<int>(state.range(0))), layout(state.range(1)) {
        auto filled = std::make_shared<ReadView_>();
        auto tables = std::make_shared<TableViews_>();
        for (int index = 0; index < tableCount; ++index) {
            if (layout == 2)
                filled->sealed.push_back(memtable(index));
            else
                tables->primaryView.push_back(table(index));
        }
        tables->largestPrimaryKey = ZnByteArray(keyOf(2 * kRecordCount));
        filled->tables = tables;
        filled->counters = std::make_shared<StoreCounters_>();
        filled->blobs = std::make_shared<BlobFiles_>(znStorageFiles(), directory.path("blobs"), 1, filled->counters);
        view = filled;
    }
    std::shared_ptr<const TableHandle_> table(int index) const {
        const auto fileId = static_cast<std::uint64_t>(index) + 1;
        const int part = kRecordCount / tableCount;
        const TableMeta_ meta = layout == 1 ? writeSample(directory, fileId, index, kRecordCount, tableCount)
                                            : writeSample(directory, fileId, index * part, (index + 1) * part);
        const auto opened = std::make_shared<TableHandle_>();
        ZnEmbeddedDbStatus status;
        ZN_ASSERT(opened->open(znStorageFiles(), directory.path(), meta, {}, &status));
        return opened;
    }
    std::shared_ptr<SharedMemtable_> memtable(int index) const {
        const auto filled = std::make_shared<SharedMemtable_>();
        const MemtableWriteScope_ scope(filled->lock);
        for (int number = index; number < kRecordCount; number += tableCount) {
            ValueEntry_ entry;
            entry.inlineValue = true;
            entry.sequence = static_cast<std::uint64_t>(number) + 1;
            entry.value = ZnByteArray(std::string(100, 'v'));
            filled->table.insert(keyOf(2 * number), entry);
        }
        return filled;
    }

    const ScratchDirectory directory;
    const int tableCount;
    const std::int64_t layout;
    ReadViewPtr_ view;
};

void scanView(benchmark::State& state, bool isReverse) {
    const ViewSample sample(state);
    ZnEmbeddedDbRange range;
    range.reverse = isReverse;
    for (auto _ : state) {
        int count = 0;
        for (ZnEmbeddedDbIterator records = openScan(sample.view, range); records.valid(); records.next(), ++count)
            benchmark::DoNotOptimize(records.key().size() + records.value().size());
        ZN_ASSERT(count == ViewSample::kRecordCount);
    }
    state.SetItemsProcessed(state.iterations() * ViewSample::kRecordCount);
}
void BM_ViewScan(benchmark::State& state) {
    scanView(state, false);
}
BENCHMARK(BM_ViewScan)
    ->Args({1, 0})
    ->Args({16, 0})
    ->Args({4, 1})
    ->Args({16, 1})
    ->Args({1, 2})
    ->Args({4, 2})
    ->Unit(benchmark::kMillisecond);
void BM_ViewScanReverse(benchmark::State& state) {
    scanView(state, true);
}
BENCHMARK(BM_ViewScanReverse)->Args({1, 0})->Args({16, 1})->Unit(benchmark::kMillisecond);

/// Ten records from a random key on.
void BM_ViewShortScan(benchmark::State& state) {
    const ViewSample sample(state);
    std::minstd_rand random(1);
    for (auto _ : state) {
        ZnEmbeddedDbRange range;
        range.start = ZnByteArray(keyOf(static_cast<int>(random() % (2 * ViewSample::kRecordCount - 40))));
        range.limit = 10;
        for (ZnEmbeddedDbIterator records = openScan(sample.view, range); records.valid(); records.next())
            benchmark::DoNotOptimize(records.value().data());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ViewShortScan)->Args({1, 0})->Args({16, 0})->Args({16, 1});

/// Odd keys are nowhere.
void getRandomKeys(benchmark::State& state, int odd) {
    const ViewSample sample(state);
    std::minstd_rand random(1);
    std::vector<std::string> keys;
    for (int count = 0; count < 65536; ++count)
        keys.push_back(keyOf(2 * static_cast<int>(random() % ViewSample::kRecordCount) + odd));
    ZnByteArray value;
    std::size_t next = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(readRecord(*sample.view, keys[next++ % keys.size()], &value).code());
    state.SetItemsProcessed(state.iterations());
}
void BM_ViewGetHit(benchmark::State& state) {
    getRandomKeys(state, 0);
}
BENCHMARK(BM_ViewGetHit)->Args({1, 0})->Args({16, 1})->Args({4, 2});
void BM_ViewGetMiss(benchmark::State& state) {
    getRandomKeys(state, 1);
}
BENCHMARK(BM_ViewGetMiss)->Args({1, 0})->Args({16, 1});

} // namespace
