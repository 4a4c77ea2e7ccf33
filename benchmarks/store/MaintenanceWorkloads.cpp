#include "MaintenanceWorkloads.h"

#include "ProcessUse.h"
#include "Records.h"

#include <algorithm>
#include <future>

namespace {

using Measurements = std::vector<Measurement>;
using Unit = Measurement::Unit;

struct Churn {
    const char* name;
    std::uint32_t recordCount;
    std::size_t valueBytes;
    int passCount;          // every record is written so often, each time in another place of the order
    int collectionsPerPass; // how often a pass asks for garbage to be collected, beside the writing
};

/// Collects garbage on a thread of its own, at most once at a time.
class Collector {
public:
    explicit Collector(BenchmarkStore& store) : store_(store) {}
    ~Collector() { finish(); }

    void start() {
        if (running_.valid() && running_.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
            return;
        finish();
        running_ = std::async(std::launch::async, [this] { store_.collectGarbage(); });
    }
    void finish() {
        if (running_.valid())
            running_.get();
    }

private:
    BenchmarkStore& store_;
    std::future<void> running_;
};

void overwriteAll(const StageContext& context, const Churn& churn, const Records& records, Latencies* latencies) {
    Collector collector(context.store);
    std::vector<std::uint32_t> order = records.shuffled();
    Stopwatch each;
    for (int pass = 0; pass < churn.passCount; ++pass) {
        std::rotate(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(order.size() / 3), order.end());
        for (std::size_t index = 0; index < order.size(); ++index) {
            if (churn.collectionsPerPass != 0 && index % (order.size() / churn.collectionsPerPass + 1) == 0)
                collector.start();
            each.lapNs();
            context.store.put(viewOf(Records::key(order[index])), records.value(order[index]), false);
            latencies->add(each.lapNs());
        }
    }
    collector.finish();
}

Measurement spaceOf(const std::string& name, const StageContext& context, const Records& records) {
    if (!waitUntilIdle())
        failBenchmark(name + ": still busy after a minute");
    const double liveMib = static_cast<double>(records.totalBytes()) / (1024.0 * 1024.0);
    return amount(name, Unit::Times, directoryMib(context.path) / liveMib);
}

Stage overwrite(const Churn& churn) {
    return [=](const StageContext& context) {
        const auto count = static_cast<std::uint32_t>(churn.recordCount * context.scale);
        const Records records(std::max(count, 200u), churn.valueBytes);
        const std::string name = churn.name;
        const auto passCount = static_cast<std::uint64_t>(churn.passCount);
        Latencies latencies;
        context.store.open(context.path);
        Stopwatch watch;
        overwriteAll(context, churn, records, &latencies);
        Measurements out = {
            rate(name, passCount * records.count(), passCount * records.totalBytes(), watch.lapSeconds(), &latencies)};
        context.store.flush();
        out.push_back(spaceOf(name + ": space", context, records));
        watch.lapNs();
        context.store.compact();
        out.push_back(amount(name + ": compact", Unit::Milliseconds, watch.lapSeconds() * 1e3));
        out.push_back(spaceOf(name + ": space, compact", context, records));
        context.store.close();
        return out;
    };
}

} // namespace

std::vector<Workload> maintenanceWorkloads() {
    return {{"overwrite",
             "1,000,000 records, each written six times: compactions while writing",
             {overwrite({"overwrite", 1000000, 100, 6, 0})}},
            {"overwrite64k",
             "2,000 values of 64 KiB, each written six times: garbage is collected meanwhile",
             {overwrite({"overwrite 64 KiB", 2000, 65536, 6, 2})}}};
}
