#include "Workloads.h"

#include "MaintenanceWorkloads.h"
#include "ProcessUse.h"
#include "Records.h"

#include <algorithm>
#include <limits>
#include <thread>
#include <unistd.h>

namespace {

using Measurements = std::vector<Measurement>;
using Unit = Measurement::Unit;

constexpr std::size_t kSmallValueBytes = 100;
constexpr std::uint32_t kSmallRecords = 1000000;
constexpr std::uint32_t kBatchRecords = 100;
constexpr std::uint32_t kShortScanRecords = 50;
constexpr std::uint64_t kAllRecords = std::numeric_limits<std::uint64_t>::max();

std::uint32_t scaled(std::uint32_t count, const StageContext& context) {
    return std::max(static_cast<std::uint32_t>(static_cast<double>(count) * context.scale), 200u);
}

std::vector<std::uint32_t> inOrder(const Records& records) {
    std::vector<std::uint32_t> order = records.shuffled();
    std::sort(order.begin(), order.end());
    return order;
}

// ---- Writing

void putAll(BenchmarkStore& store, const Records& records, const std::vector<std::uint32_t>& order,
            Latencies* latencies) {
    Stopwatch each;
    for (const std::uint32_t record : order) {
        store.put(viewOf(Records::key(record)), records.value(record), false);
        latencies->add(each.lapNs());
    }
}

/// Fills, and tells separately what it takes until all is in tables, and until the store has put them in order.
void measureFill(const std::string& name, const StageContext& context, const Records& records,
                 const std::vector<std::uint32_t>& order, Measurements* out) {
    Latencies latencies;
    const double writtenBefore = writtenMib();
    Stopwatch watch;
    putAll(context.store, records, order, &latencies);
    double seconds = watch.lapSeconds();
    out->push_back(rate(name, records.count(), records.totalBytes(), seconds, &latencies));
    context.store.flush();
    seconds += watch.lapSeconds();
    out->push_back(rate(name + " incl. flush", records.count(), records.totalBytes(), seconds));
    if (!waitUntilIdle())
        failBenchmark(name + ": still busy after a minute");
    const double userMib = static_cast<double>(records.totalBytes()) / (1024.0 * 1024.0);
    out->push_back(amount(name + " written", Unit::Times, (writtenMib() - writtenBefore) / userMib));
    out->push_back(amount(name + " on disk", Unit::Mebibytes, directoryMib(context.path)));
}

/// Not measured: leaves a closed store with nothing left to do.
void prepare(const StageContext& context, const Records& records) {
    Latencies unused;
    context.store.open(context.path);
    putAll(context.store, records, records.shuffled(), &unused);
    context.store.flush();
    if (!waitUntilIdle())
        failBenchmark("filling: still busy after a minute");
    context.store.close();
}

Measurements fillInOrder(const StageContext& context) {
    const Records records(scaled(kSmallRecords, context), kSmallValueBytes);
    const std::vector<std::uint32_t> order = inOrder(records);
    Measurements out;
    context.store.open(context.path);
    measureFill("fill in order", context, records, order, &out);
    context.store.close();
    return out;
}

Measurements fillRandom(const StageContext& context) {
    const Records records(scaled(kSmallRecords, context), kSmallValueBytes);
    const std::vector<std::uint32_t> order = records.shuffled();
    Measurements out;
    context.store.open(context.path);
    measureFill("fill random", context, records, order, &out);
    context.store.close();
    return out;
}

Measurements fillBatches(const StageContext& context) {
    const Records records(scaled(kSmallRecords, context), kSmallValueBytes);
    const std::vector<std::uint32_t> order = records.shuffled();
    std::vector<BenchmarkStore::Record> batch;
    context.store.open(context.path);
    Latencies latencies;
    Stopwatch whole;
    Stopwatch each;
    for (const std::uint32_t record : order) {
        batch.push_back({std::string(viewOf(Records::key(record))), std::string(records.value(record))});
        if (batch.size() < kBatchRecords && record != order.back())
            continue;
        context.store.putBatch(batch, false);
        batch.clear();
        latencies.add(each.lapNs());
    }
    Measurements out = {
        rate("fill random, batches of 100", records.count(), records.totalBytes(), whole.lapSeconds(), &latencies)};
    context.store.close();
    return out;
}

/// Every put waits for stable storage; those of several threads may share one wait.
Measurement measureSyncedPuts(const StageContext& context, const Records& records, unsigned threadCount,
                              std::uint32_t firstRecord, std::uint32_t putsPerThread) {
    std::vector<Latencies> latencies(threadCount);
    std::vector<std::thread> threads;
    Stopwatch watch;
    for (unsigned thread = 0; thread < threadCount; ++thread)
        threads.emplace_back([&, thread] {
            Stopwatch each;
            for (std::uint32_t put = 0; put < putsPerThread; ++put) {
                const std::uint32_t record = firstRecord + put * threadCount + thread;
                context.store.put(viewOf(Records::key(record)), records.value(record), true);
                latencies[thread].add(each.lapNs());
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    const double seconds = watch.lapSeconds();
    for (unsigned thread = 1; thread < threadCount; ++thread)
        latencies[0].add(latencies[thread]);
    const std::uint64_t putCount = std::uint64_t{threadCount} * putsPerThread;
    return rate("synced puts, " + std::to_string(threadCount) + (threadCount == 1 ? " thread" : " threads"), putCount,
                putCount * records.recordBytes(), seconds, &latencies[0]);
}

Measurements fillSynced(const StageContext& context) {
    constexpr unsigned kThreadCounts[] = {1, 8, 16};
    const std::uint32_t putsPerThread = std::max(scaled(kSmallRecords, context) / 1000, 20u);
    const Records records(25 * putsPerThread, kSmallValueBytes);
    Measurements out;
    context.store.open(context.path);
    std::uint32_t firstRecord = 0;
    for (const unsigned threadCount : kThreadCounts) {
        out.push_back(measureSyncedPuts(context, records, threadCount, firstRecord, putsPerThread));
        firstRecord += threadCount * putsPerThread;
    }
    context.store.close();
    return out;
}

// ---- Reading

/// In an order that is not that of the fill.
std::vector<std::uint32_t> readOrder(const Records& records) {
    std::vector<std::uint32_t> order = records.shuffled();
    std::reverse(order.begin(), order.end());
    for (std::size_t index = 0; index + 1 < order.size(); index += 2)
        std::swap(order[index], order[order.size() - 1 - index / 2]);
    return order;
}

void checkHit(BenchmarkStore& store, const Records& records, std::uint32_t record) {
    std::string_view value;
    if (!store.get(viewOf(Records::key(record)), &value))
        failBenchmark("a record is not there: " + std::to_string(record));
    // All bytes are touched, as a caller would.
    if (value != records.value(record))
        failBenchmark("a record has another value: " + std::to_string(record));
}

Measurement measureHits(const std::string& name, const StageContext& context, const Records& records,
                        const std::vector<std::uint32_t>& order) {
    Latencies latencies;
    Stopwatch whole;
    Stopwatch each;
    for (const std::uint32_t record : order) {
        checkHit(context.store, records, record);
        latencies.add(each.lapNs());
    }
    return rate(name, order.size(), order.size() * records.recordBytes(), whole.lapSeconds(), &latencies);
}

Measurement measureMisses(const std::string& name, const StageContext& context,
                          const std::vector<std::uint32_t>& order) {
    Latencies latencies;
    Stopwatch whole;
    Stopwatch each;
    for (const std::uint32_t record : order) {
        std::string_view value;
        if (context.store.get(viewOf(Records::missingKey(record)), &value))
            failBenchmark("a record that was never put is there: " + std::to_string(record));
        latencies.add(each.lapNs());
    }
    return rate(name, order.size(), 0, whole.lapSeconds(), &latencies);
}

Measurement measureFullScan(const std::string& name, const StageContext& context, const Records& records,
                            bool backwards) {
    Stopwatch watch;
    const BenchmarkStore::ScanResult result = context.store.scan({}, kAllRecords, backwards);
    const double seconds = watch.lapSeconds();
    std::uint64_t checksum = 0;
    for (std::uint32_t record = 0; record < records.count(); ++record)
        checksum += BenchmarkStore::touch(records.value(record));
    if (result.recordCount != records.count() || result.checksum != checksum)
        failBenchmark(name + ": not all records, or other values");
    return rate(name, result.recordCount, result.byteCount, seconds);
}

Measurement measureShortScans(const StageContext& context, const Records& records,
                              const std::vector<std::uint32_t>& order) {
    const std::size_t scanCount = std::max<std::size_t>(order.size() / 10, 1);
    Latencies latencies;
    std::uint64_t byteCount = 0;
    Stopwatch whole;
    Stopwatch each;
    for (std::size_t scan = 0; scan < scanCount; ++scan) {
        const BenchmarkStore::ScanResult result =
            context.store.scan(viewOf(Records::key(order[scan])), kShortScanRecords, false);
        if (result.recordCount != std::min(kShortScanRecords, records.count() - order[scan]))
            failBenchmark("a short scan gave another number of records");
        byteCount += result.byteCount;
        latencies.add(each.lapNs());
    }
    return rate("scan of 50 from a random key", scanCount, byteCount, whole.lapSeconds(), &latencies);
}

Measurements readAfterFill(const StageContext& context) {
    const Records records(scaled(kSmallRecords, context), kSmallValueBytes);
    const std::vector<std::uint32_t> order = readOrder(records);
    Latencies unused;
    context.store.open(context.path);
    putAll(context.store, records, records.shuffled(), &unused);
    if (!waitUntilIdle())
        failBenchmark("filling: still busy after a minute");
    Measurements out = {measureHits("get after fill", context, records, order),
                        measureMisses("get after fill, missing", context, order)};
    context.store.flush();
    if (!waitUntilIdle())
        failBenchmark("filling: still busy after a minute");
    context.store.close();
    return out;
}

Measurements readAfterReopen(const StageContext& context) {
    const Records records(scaled(kSmallRecords, context), kSmallValueBytes);
    const std::vector<std::uint32_t> order = readOrder(records);
    context.store.open(context.path);
    if (!waitUntilIdle())
        failBenchmark("opening: still busy after a minute");
    Measurements out = {measureHits("get after reopen", context, records, order),
                        measureMisses("get after reopen, missing", context, order),
                        measureFullScan("full scan", context, records, false),
                        measureFullScan("full scan backwards", context, records, true),
                        measureShortScans(context, records, order)};
    context.store.close();
    return out;
}

Stage fillLarge(const std::string& name, std::uint32_t recordCount, std::size_t valueBytes) {
    return [=](const StageContext& context) {
        const Records records(scaled(recordCount, context), valueBytes);
        Measurements out;
        context.store.open(context.path);
        measureFill(name + ": fill random", context, records, records.shuffled(), &out);
        context.store.close();
        return out;
    };
}

Stage readLarge(const std::string& name, std::uint32_t recordCount, std::size_t valueBytes) {
    return [=](const StageContext& context) {
        const Records records(scaled(recordCount, context), valueBytes);
        context.store.open(context.path);
        Measurements out = {measureHits(name + ": get", context, records, readOrder(records)),
                            measureFullScan(name + ": full scan", context, records, false)};
        context.store.close();
        return out;
    };
}

// ---- Opening

constexpr std::size_t kOpenValueBytes = 1008; // a KiB with the key

Measurements prepareOpen(const StageContext& context) {
    prepare(context, Records(scaled(1024 * 1024, context), kOpenValueBytes));
    return {};
}

/// With all files in the page cache, as after the stage before.
Measurements openLarge(const StageContext& context) {
    const Records records(scaled(1024 * 1024, context), kOpenValueBytes);
    const ResidentMemory before = residentMemory();
    Stopwatch watch;
    context.store.open(context.path);
    const double openMs = watch.lapSeconds() * 1e3;
    checkHit(context.store, records, records.count() / 2);
    const double firstGetMs = watch.lapSeconds() * 1e3;
    if (!waitUntilIdle())
        failBenchmark("opening: still busy after a minute");
    const ResidentMemory after = residentMemory();
    context.store.close();
    return {amount("open 1 GiB", Unit::Milliseconds, openMs),
            amount("open 1 GiB, and one get", Unit::Milliseconds, openMs + firstGetMs),
            amount("memory when open", Unit::Mebibytes, after.totalMib - before.totalMib),
            amount("memory when open, anonymous", Unit::Mebibytes, after.anonymousMib - before.anonymousMib),
            amount("open 1 GiB: on disk", Unit::Mebibytes, directoryMib(context.path))};
}

constexpr std::uint32_t kLoggedRecords = 100000; // less than a write buffer holds

/// Ends as a process that was killed does.
Measurements leaveLog(const StageContext& context) {
    const Records records(scaled(kLoggedRecords, context), kSmallValueBytes);
    Latencies unused;
    context.store.open(context.path);
    putAll(context.store, records, records.shuffled(), &unused);
    return {};
}

Measurements openAfterKill(const StageContext& context) {
    const Records records(scaled(kLoggedRecords, context), kSmallValueBytes);
    Stopwatch watch;
    context.store.open(context.path);
    const double openMs = watch.lapSeconds() * 1e3;
    measureFullScan("open after kill", context, records, false); // all must be there
    context.store.close();
    return {amount("open after kill", Unit::Milliseconds, openMs)};
}

} // namespace

std::vector<Workload> allWorkloads() {
    std::vector<Workload> workloads = {
        {"fillseq", "1,000,000 records in the order of their keys", {fillInOrder}},
        {"fillrandom", "1,000,000 records in random order", {fillRandom}},
        {"fillbatch", "the same in batches of 100", {fillBatches}},
        {"fillsync", "1,000 synced puts in each of 1, 8 and 16 threads", {fillSynced}},
        {"read", "1,000,000 records: get, full scans, short scans", {readAfterFill, readAfterReopen}},
        {"values4k", "100,000 values of 4 KiB", {fillLarge("4 KiB", 100000, 4096), readLarge("4 KiB", 100000, 4096)}},
        {"values64k",
         "10,000 values of 64 KiB",
         {fillLarge("64 KiB", 10000, 65536), readLarge("64 KiB", 10000, 65536)}},
        {"open", "opening a store of 1 GiB, and its memory then", {prepareOpen, openLarge}},
        {"recover", "opening a store whose process was killed, 11 MiB in its log", {leaveLog, openAfterKill}},
    };
    for (Workload& workload : maintenanceWorkloads())
        workloads.push_back(std::move(workload));
    return workloads;
}
