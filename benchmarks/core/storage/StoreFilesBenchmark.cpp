// The files of the store: checksums, building a table, opening it, and reading it in order and at random. Files lie in
// a temporary directory, so building includes what the disk takes for two syncs.

#include "core/storage/embeddeddb/Crc32_.h"
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

TableMeta_ writeSample(const ScratchDirectory& directory, int recordCount, const std::string& value) {
    TableMeta_ meta;
    meta.fileId = 1;
    TableWriter_ writer(znStorageFiles(), directory.path("tmp"), directory.path("tables"), meta);
    ZN_ASSERT(writer.open().isOk());
    for (int number = 0; number < recordCount; ++number)
        ZN_ASSERT(writer.add({keyOf(2 * number), static_cast<std::uint64_t>(number) + 1, kInlineRecord, value}).isOk());
    ZN_ASSERT(writer.finish().isOk());
    return writer.meta();
}

/// A table of `range(0)` records with keys of 16 bytes and values of 100.
struct Sample {
    explicit Sample(const benchmark::State& state)
        : recordCount(static_cast<int>(state.range(0))),
          meta(writeSample(directory, recordCount, std::string(100, 'v'))),
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
    const std::string value(100, 'v');
    for (auto _ : state)
        writeSample(directory, static_cast<int>(state.range(0)), value);
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetBytesProcessed(state.iterations() * state.range(0) * 136);
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

} // namespace
