#include "BenchmarkStore.h"

#ifdef STORE_BENCHMARK_LEVELDB
#include <leveldb/cache.h>
#include <leveldb/db.h>
#include <leveldb/filter_policy.h>
#include <leveldb/write_batch.h>

namespace {

leveldb::Slice sliceOf(std::string_view bytes) {
    return {bytes.data(), bytes.size()};
}
std::string_view viewOf(const leveldb::Slice& slice) {
    return {slice.data(), slice.size()};
}

class LevelDbStore : public BenchmarkStore {
public:
    explicit LevelDbStore(const StoreConfig& config) : config_(config) {}

    void open(const std::string& path) override {
        leveldb::Options options;
        options.create_if_missing = true;
        if (!config_.libraryDefaults) {
            cache_.reset(leveldb::NewLRUCache(kBlockCacheBytes));
            filter_.reset(leveldb::NewBloomFilterPolicy(kBloomBitsPerKey));
            options.write_buffer_size = kWriteBufferBytes;
            options.block_cache = cache_.get();
            options.filter_policy = filter_.get();
            options.max_open_files = 10000;
            options.compression = leveldb::kNoCompression;
        }
        leveldb::DB* db = nullptr;
        check_(leveldb::DB::Open(options, path, &db));
        db_.reset(db);
    }

    void close() override { db_.reset(); }

    void put(std::string_view key, std::string_view value, bool sync) override {
        check_(db_->Put(writeOptions_(sync), sliceOf(key), sliceOf(value)));
    }

    void putBatch(const std::vector<Record>& records, bool sync) override {
        leveldb::WriteBatch batch;
        for (const Record& record : records)
            batch.Put(record.key, record.value);
        check_(db_->Write(writeOptions_(sync), &batch));
    }

    bool get(std::string_view key, std::string_view* value) override {
        const leveldb::Status status = db_->Get(leveldb::ReadOptions(), sliceOf(key), &value_);
        if (status.IsNotFound())
            return false;
        check_(status);
        *value = value_;
        return true;
    }

    ScanResult scan(std::string_view start, std::uint64_t limit, bool backwards) override {
        ScanResult result;
        const std::unique_ptr<leveldb::Iterator> records(db_->NewIterator(leveldb::ReadOptions()));
        if (!start.empty())
            records->Seek(sliceOf(start));
        else if (backwards)
            records->SeekToLast();
        else
            records->SeekToFirst();
        while (records->Valid() && result.recordCount < limit) {
            add(viewOf(records->key()), viewOf(records->value()), &result);
            if (backwards)
                records->Prev();
            else
                records->Next();
        }
        check_(records->status());
        return result;
    }

    // There is no call for it. Compacting a range writes the records in memory to a table first; behind all keys there
    // is nothing to compact then.
    void flush() override {
        const leveldb::Slice behindAllKeys("\xff\xff");
        db_->CompactRange(&behindAllKeys, &behindAllKeys);
    }
    void compact() override { db_->CompactRange(nullptr, nullptr); }
    void collectGarbage() override {} // its compactions do

private:
    static leveldb::WriteOptions writeOptions_(bool sync) {
        leveldb::WriteOptions options;
        options.sync = sync;
        return options;
    }
    static void check_(const leveldb::Status& status) {
        if (!status.ok())
            failBenchmark("LevelDB: " + status.ToString());
    }

    const StoreConfig config_;
    std::unique_ptr<leveldb::Cache> cache_; // cache and filter outlive the store
    std::unique_ptr<const leveldb::FilterPolicy> filter_;
    std::unique_ptr<leveldb::DB> db_;
    std::string value_;
};

} // namespace

std::unique_ptr<BenchmarkStore> makeLevelDbStore(const StoreConfig& config) {
    return std::make_unique<LevelDbStore>(config);
}
#else
std::unique_ptr<BenchmarkStore> makeLevelDbStore(const StoreConfig&) {
    return nullptr;
}
#endif
