#include "BenchmarkStore.h"

#ifdef STORE_BENCHMARK_ZN
#include "core/storage/embeddeddb/ZnEmbeddedDb.h"

namespace {

class ZnStore : public BenchmarkStore {
public:
    explicit ZnStore(const StoreConfig& config) : config_(config) {}

    void open(const std::string& path) override {
        ZnEmbeddedDbOptions options;
        if (!config_.libraryDefaults)
            options.memtableSizeBytes = kWriteBufferBytes;
        options.verifyFilters = config_.verifyOnOpen;
        check_(db_.open(ZnString(path), options));
    }

    void close() override { db_.close(); }

    void put(std::string_view key, std::string_view value, bool sync) override {
        check_(db_.put(key, value, {}, durability_(sync)));
    }

    void putBatch(const std::vector<Record>& records, bool sync) override {
        ZnEmbeddedDbBatch batch;
        for (const Record& record : records)
            batch.put(record.key, record.value);
        check_(db_.write(batch, durability_(sync)));
    }

    bool get(std::string_view key, std::string_view* value) override {
        const ZnEmbeddedDbStatus status = db_.get(key, &value_);
        if (status.code() == ZnEmbeddedDbStatus::NotFound)
            return false;
        check_(status);
        *value = value_.view();
        return true;
    }

    ScanResult scan(std::string_view start, std::uint64_t limit, bool backwards) override {
        ZnEmbeddedDbRange range;
        range.start = ZnByteArray(start);
        range.limit = limit;
        range.reverse = backwards;
        ScanResult result;
        ZnEmbeddedDbIterator records = db_.scan(range);
        for (; records.valid(); records.next())
            add(records.key(), records.value(), &result);
        check_(records.status());
        return result;
    }

    void flush() override { check_(db_.flush()); }
    void compact() override { check_(db_.compact()); }
    void collectGarbage() override { check_(db_.collectGarbage()); }

private:
    static ZnEmbeddedDbDurability durability_(bool sync) {
        return sync ? ZnEmbeddedDbDurability::Synced : ZnEmbeddedDbDurability::Buffered;
    }
    static void check_(const ZnEmbeddedDbStatus& status) {
        if (!status.isOk())
            failBenchmark("ZnEmbeddedDb: " + std::string(status.message().view()));
    }

    const StoreConfig config_;
    ZnEmbeddedDb db_;
    ZnByteArray value_;
};

} // namespace

std::unique_ptr<BenchmarkStore> makeZnStore(const StoreConfig& config) {
    return std::make_unique<ZnStore>(config);
}
#else
std::unique_ptr<BenchmarkStore> makeZnStore(const StoreConfig&) {
    return nullptr;
}
#endif
