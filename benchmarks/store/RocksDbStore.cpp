#include "BenchmarkStore.h"

#ifdef STORE_BENCHMARK_ROCKSDB
#include <rocksdb/cache.h>
#include <rocksdb/db.h>
#include <rocksdb/filter_policy.h>
#include <rocksdb/table.h>
#include <rocksdb/write_batch.h>

namespace {

rocksdb::Slice sliceOf(std::string_view bytes) {
    return {bytes.data(), bytes.size()};
}

class RocksDbStore : public BenchmarkStore {
public:
    explicit RocksDbStore(const StoreConfig& config) : config_(config) {}

    void open(const std::string& path) override {
        rocksdb::DB* db = nullptr;
        check_(rocksdb::DB::Open(options_(), path, &db));
        db_.reset(db);
    }

    void close() override {
        check_(db_->Close());
        db_.reset();
    }

    void put(std::string_view key, std::string_view value, bool sync) override {
        check_(db_->Put(writeOptions_(sync), sliceOf(key), sliceOf(value)));
    }

    void putBatch(const std::vector<Record>& records, bool sync) override {
        rocksdb::WriteBatch batch;
        for (const Record& record : records)
            check_(batch.Put(record.key, record.value));
        check_(db_->Write(writeOptions_(sync), &batch));
    }

    // The form without a copy where the block stays in the cache, as its own benchmark reads.
    bool get(std::string_view key, std::string_view* value) override {
        value_.Reset();
        const rocksdb::Status status =
            db_->Get(rocksdb::ReadOptions(), db_->DefaultColumnFamily(), sliceOf(key), &value_);
        if (status.IsNotFound())
            return false;
        check_(status);
        *value = value_.ToStringView();
        return true;
    }

    ScanResult scan(std::string_view start, std::uint64_t limit, bool backwards) override {
        ScanResult result;
        const std::unique_ptr<rocksdb::Iterator> records(db_->NewIterator(rocksdb::ReadOptions()));
        if (!start.empty())
            records->Seek(sliceOf(start));
        else if (backwards)
            records->SeekToLast();
        else
            records->SeekToFirst();
        while (records->Valid() && result.recordCount < limit) {
            add(records->key().ToStringView(), records->value().ToStringView(), &result);
            if (backwards)
                records->Prev();
            else
                records->Next();
        }
        check_(records->status());
        return result;
    }

    void flush() override { check_(db_->Flush(rocksdb::FlushOptions())); }
    void compact() override { check_(db_->CompactRange(rocksdb::CompactRangeOptions(), nullptr, nullptr)); }
    void collectGarbage() override {} // its compactions do

private:
    rocksdb::Options options_() const {
        rocksdb::Options options;
        options.create_if_missing = true;
        options.enable_blob_files = config_.blobFiles;
        options.enable_blob_garbage_collection = config_.blobFiles;
        options.min_blob_size = config_.blobFiles ? 4096 : 0;
        if (config_.libraryDefaults)
            return options;
        options.write_buffer_size = kWriteBufferBytes;
        options.max_write_buffer_number = 5; // one that is written to and four that wait
        options.max_open_files = -1;
        options.compression = rocksdb::kNoCompression;
        rocksdb::BlockBasedTableOptions table;
        table.block_cache = rocksdb::NewLRUCache(kBlockCacheBytes);
        table.filter_policy.reset(rocksdb::NewBloomFilterPolicy(kBloomBitsPerKey));
        options.table_factory.reset(rocksdb::NewBlockBasedTableFactory(table));
        return options;
    }
    static rocksdb::WriteOptions writeOptions_(bool sync) {
        rocksdb::WriteOptions options;
        options.sync = sync;
        return options;
    }
    static void check_(const rocksdb::Status& status) {
        if (!status.ok())
            failBenchmark("RocksDB: " + status.ToString());
    }

    const StoreConfig config_;
    std::unique_ptr<rocksdb::DB> db_;
    rocksdb::PinnableSlice value_; // ends before the store
};

} // namespace

std::unique_ptr<BenchmarkStore> makeRocksDbStore(const StoreConfig& config) {
    return std::make_unique<RocksDbStore>(config);
}
#else
std::unique_ptr<BenchmarkStore> makeRocksDbStore(const StoreConfig&) {
    return nullptr;
}
#endif
