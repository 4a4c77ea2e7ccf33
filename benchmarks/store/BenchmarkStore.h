#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

/// What a store is opened with, beyond what all of them get.
struct StoreConfig {
    bool libraryDefaults = false; // nothing is set but that a missing store is made
    bool blobFiles = false;       // large values beside the tables, where that is a choice
    bool verifyOnOpen = true;     // as far as the store knows it
};

/// One key-value store under measurement. A failure ends the process with a message: a benchmark that goes on after one
/// would measure something else.
///
/// Thread: put() any; the rest one at a time. Destroyed without close() only when the process ends at once.
class BenchmarkStore {
public:
    static constexpr std::size_t kWriteBufferBytes = 16 * 1024 * 1024;
    static constexpr std::size_t kBlockCacheBytes = 64 * 1024 * 1024;
    static constexpr int kBloomBitsPerKey = 10;

    struct Record {
        std::string key;
        std::string value;
    };
    struct ScanResult {
        std::uint64_t recordCount = 0;
        std::uint64_t byteCount = 0; // keys and values
        std::uint64_t checksum = 0;  // the sum of touch() of the values
    };

    virtual ~BenchmarkStore() = default;

    static std::uint64_t touch(std::string_view value);

    virtual void open(const std::string& path) = 0;
    virtual void close() = 0;
    /// With `sync` the record is on stable storage when it returns, else the system has it.
    virtual void put(std::string_view key, std::string_view value, bool sync) = 0;
    virtual void putBatch(const std::vector<Record>& records, bool sync) = 0;
    /// False when there is no such key. The view is good until the next call.
    virtual bool get(std::string_view key, std::string_view* value) = 0;
    /// At most `limit` records from `start` on; an empty start is the first record, backwards the last one.
    virtual ScanResult scan(std::string_view start, std::uint64_t limit, bool backwards) = 0;
    /// Writes what is in memory to tables, and waits for it.
    virtual void flush() = 0;
    /// Brings everything into its smallest form, and waits for it.
    virtual void compact() = 0;
    /// Reclaims what replaced values take, where a store that is being written to has to be asked for it. Any thread.
    virtual void collectGarbage() = 0;

protected:
    static void add(std::string_view key, std::string_view value, ScanResult* result);
};

[[noreturn]] void failBenchmark(const std::string& what);

/// Null where the library was not there when the benchmark was built.
std::unique_ptr<BenchmarkStore> makeZnStore(const StoreConfig& config);
std::unique_ptr<BenchmarkStore> makeLevelDbStore(const StoreConfig& config);
std::unique_ptr<BenchmarkStore> makeRocksDbStore(const StoreConfig& config);
