// The store beside LevelDB and RocksDB, on the same records and the same machine.
//
//   store_benchmark [--stores=zn,leveldb,...] [--workloads=read,...] [--scale=0.1] [--repeat=3] [--dir=DIR]
//                   [--library-defaults] [--json=FILE] [--list]
//
// Every stage of a workload on a store runs in a process of its own; with --repeat the stores take turns, and the
// figures are medians. Needs up to 5 GiB in DIR at scale 1, leaves nothing there, and ends by itself. See README.md.

#include "BenchmarkStore.h"
#include "ForkedRun.h"
#include "Measurement.h"
#include "Workloads.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr unsigned kStageTimeoutSeconds = 900;

volatile std::sig_atomic_t isInterrupted = 0;

struct StoreKind {
    std::string name;
    std::function<std::unique_ptr<BenchmarkStore>(StoreConfig)> make;
    bool isDefault; // measured when no stores are named
};

struct Options {
    std::vector<StoreKind> stores;
    std::vector<Workload> workloads;
    double scale = 1.0;
    int repeat = 1;
    std::string parentDirectory = std::filesystem::temp_directory_path().string();
    bool libraryDefaults = false;
    std::string jsonPath;
};

/// All samples of one workload: [store][round][measurement].
using Samples = std::vector<std::vector<std::vector<Measurement>>>;

struct Figure {
    std::string store;
    Measurement measurement;
};

std::vector<StoreKind> allStores() {
    return {
        {"zn", [](StoreConfig config) { return makeZnStore(config); }, true},
        {"zn-noverify", [](StoreConfig config) { return config.verifyOnOpen = false, makeZnStore(config); }, false},
        {"leveldb", [](StoreConfig config) { return makeLevelDbStore(config); }, true},
        {"rocksdb", [](StoreConfig config) { return makeRocksDbStore(config); }, true},
        {"rocksdb-blob", [](StoreConfig config) { return config.blobFiles = true, makeRocksDbStore(config); }, false},
    };
}

[[noreturn]] void usage(const std::string& problem) {
    std::fprintf(stderr,
                 "store_benchmark: %s\n"
                 "usage: store_benchmark [--stores=A,B] [--workloads=A,B] [--scale=X] [--repeat=N] [--dir=DIR]\n"
                 "                       [--library-defaults] [--json=FILE] [--list]\n",
                 problem.c_str());
    std::exit(2);
}

void list() {
    std::printf("stores:\n");
    for (const StoreKind& kind : allStores())
        std::printf("  %-14s%s%s\n", kind.name.c_str(), kind.make({}) == nullptr ? " not built in" : "",
                    kind.isDefault ? "" : " (only when named)");
    std::printf("workloads:\n");
    for (const Workload& workload : allWorkloads())
        std::printf("  %-14s %s\n", workload.name, workload.what);
}

std::vector<std::string> splitAtCommas(const std::string& text) {
    std::vector<std::string> parts;
    std::stringstream stream(text);
    for (std::string part; std::getline(stream, part, ',');)
        parts.push_back(part);
    return parts;
}

template <typename Item>
std::vector<Item> select(const std::vector<Item>& items, const std::string& names, const char* what) {
    std::vector<Item> selected;
    for (const std::string& name : splitAtCommas(names)) {
        const auto item = std::find_if(items.begin(), items.end(), [&](const Item& each) { return each.name == name; });
        if (item == items.end())
            usage(std::string("no such ") + what + ": " + name);
        selected.push_back(*item);
    }
    return selected;
}

std::vector<StoreKind> defaultStores() {
    std::vector<StoreKind> stores;
    for (const StoreKind& kind : allStores())
        if (kind.isDefault && kind.make({}) != nullptr)
            stores.push_back(kind);
    return stores;
}

Options parse(int argc, char** argv) {
    Options options;
    options.stores = defaultStores();
    options.workloads = allWorkloads();
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        const std::size_t equals = std::min(argument.find('='), argument.size());
        const std::string name = argument.substr(0, equals);
        const std::string value = equals < argument.size() ? argument.substr(equals + 1) : "";
        if (name == "--stores")
            options.stores = select(allStores(), value, "store");
        else if (name == "--workloads")
            options.workloads = select(allWorkloads(), value, "workload");
        else if (name == "--scale")
            options.scale = std::atof(value.c_str());
        else if (name == "--repeat")
            options.repeat = std::atoi(value.c_str());
        else if (name == "--dir")
            options.parentDirectory = value;
        else if (name == "--library-defaults")
            options.libraryDefaults = true;
        else if (name == "--json")
            options.jsonPath = value;
        else if (name == "--list")
            list(), std::exit(0);
        else
            usage("unknown option: " + argument);
    }
    if (!(options.scale > 0.0 && options.scale <= 1.0) || options.repeat < 1 || options.repeat > 99)
        usage("--scale is above 0 and at most 1, --repeat 1 to 99");
    for (const StoreKind& kind : options.stores)
        if (kind.make({}) == nullptr)
            usage("not built in: " + kind.name);
    return options;
}

/// A directory that is removed with the object.
class ScratchDirectory {
public:
    explicit ScratchDirectory(const std::string& parent) : path_(parent + "/store-benchmark-XXXXXX") {
        if (::mkdtemp(path_.data()) == nullptr)
            usage("cannot make a directory in " + parent);
    }
    ~ScratchDirectory() {
        clear();
        std::filesystem::remove(path_, ignored_);
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    void clear() {
        for (const auto& entry : std::filesystem::directory_iterator(path_, ignored_))
            std::filesystem::remove_all(entry.path(), ignored_);
    }
    std::string storePath() const { return path_ + "/store"; }
    /// The disk has nothing left to do for the stage before, so it is not counted to the next one.
    void settle() const {
        const int fd = ::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::syncfs(fd);
        ::close(fd);
    }

private:
    std::string path_;
    std::error_code ignored_;
};

/// False when a stage failed; the rest of the workload is left out then.
bool runOnce(const Workload& workload, const StoreKind& kind, const Options& options, ScratchDirectory& directory,
             std::vector<Measurement>* measurements) {
    bool isDone = true;
    for (const Stage& stage : workload.stages) {
        directory.settle();
        isDone = isDone && isInterrupted == 0 &&
                 runForked(
                     [&] {
                         StoreConfig config;
                         config.libraryDefaults = options.libraryDefaults;
                         // Never destroyed: a stage that did not close it is to look like a killed process.
                         BenchmarkStore* const store = kind.make(config).release();
                         return stage({*store, directory.storePath(), options.scale});
                     },
                     kStageTimeoutSeconds, measurements);
    }
    directory.clear();
    if (!isDone)
        std::fprintf(stderr, "store_benchmark: %s failed on %s\n", workload.name, kind.name.c_str());
    return isDone;
}

std::string numberText(double value) {
    char text[32];
    if (value == 0.0)
        return "-";
    std::snprintf(text, sizeof(text), value < 10.0 ? "%.2f" : value < 1000.0 ? "%.1f" : "%.0f", value);
    return text;
}

const char* unitText(Measurement::Unit unit) {
    switch (unit) {
    case Measurement::Unit::OpsPerSecond: return "ops/s";
    case Measurement::Unit::Milliseconds: return "ms";
    case Measurement::Unit::Mebibytes: return "MiB";
    case Measurement::Unit::Times: return "x data";
    }
    return "";
}

/// How many times better the first is; 0 where that cannot be said.
double advantage(const Measurement& first, const Measurement& other) {
    const double better = first.greaterIsBetter() ? first.value : other.value;
    const double worse = first.greaterIsBetter() ? other.value : first.value;
    return worse > 0.0 && better > 0.0 ? better / worse : 0.0;
}

void printHeader(const std::vector<StoreKind>& stores) {
    std::printf("%-36s %-13s %9s %-6s %8s %8s %8s %9s", "", "store", "value", "unit", "MB/s", "p50 us", "p99 us",
                "max us");
    for (std::size_t store = 1; store < stores.size(); ++store)
        std::printf("  %s", (stores[0].name + "/" + stores[store].name).c_str());
    std::printf("\n");
}

/// The medians of one measurement on all stores, the first store's line with its ratios to the others.
void printFigures(const std::vector<StoreKind>& stores, const std::vector<Figure>& figures) {
    for (std::size_t store = 0; store < figures.size(); ++store) {
        const Measurement& measurement = figures[store].measurement;
        std::printf("%-36s %-13s %9s %-6s %8s %8s %8s %9s", store == 0 ? measurement.name : "",
                    figures[store].store.c_str(), numberText(measurement.value).c_str(), unitText(measurement.unit),
                    numberText(measurement.megabytesPerSecond).c_str(), numberText(measurement.p50Us).c_str(),
                    numberText(measurement.p99Us).c_str(), numberText(measurement.maxUs).c_str());
        for (std::size_t other = 1; store == 0 && figures.size() == stores.size() && other < stores.size(); ++other)
            std::printf("  %*s", static_cast<int>(stores[0].name.size() + 1 + stores[other].name.size()),
                        numberText(advantage(measurement, figures[other].measurement)).c_str());
        std::printf("\n");
    }
    std::fflush(stdout);
}

/// [measurement][store]; a store that failed in every round is left out.
std::vector<std::vector<Figure>> medians(const std::vector<StoreKind>& stores, const Samples& samples) {
    std::vector<std::vector<Figure>> result;
    for (std::size_t store = 0; store < stores.size(); ++store)
        for (std::size_t index = 0; !samples[store].empty() && index < samples[store].front().size(); ++index) {
            std::vector<Measurement> rounds;
            for (const std::vector<Measurement>& round : samples[store])
                rounds.push_back(round[index]);
            result.resize(std::max(result.size(), index + 1));
            result[index].push_back({stores[store].name, medianOf(rounds)});
        }
    return result;
}

bool runWorkload(const Workload& workload, const Options& options, ScratchDirectory& directory,
                 std::vector<Figure>* allFigures) {
    bool isDone = true;
    Samples samples(options.stores.size());
    for (int round = 0; round < options.repeat; ++round)
        for (std::size_t store = 0; store < options.stores.size() && isInterrupted == 0; ++store) {
            std::vector<Measurement> measurements;
            if (runOnce(workload, options.stores[store], options, directory, &measurements))
                samples[store].push_back(measurements);
            else
                isDone = false;
        }
    for (const std::vector<Figure>& figures : medians(options.stores, samples)) {
        printFigures(options.stores, figures);
        allFigures->insert(allFigures->end(), figures.begin(), figures.end());
    }
    return isDone;
}

bool writeJson(const Options& options, const std::vector<Figure>& figures) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(options.jsonPath.c_str(), "we"), std::fclose);
    if (file == nullptr)
        return false;
    std::fprintf(file.get(), "{\"scale\": %g, \"repeat\": %d, \"libraryDefaults\": %s, \"figures\": [", options.scale,
                 options.repeat, options.libraryDefaults ? "true" : "false");
    const char* separator = "\n";
    for (const Figure& figure : figures) {
        const Measurement& measurement = figure.measurement;
        std::fprintf(file.get(),
                     "%s  {\"name\": \"%s\", \"store\": \"%s\", \"value\": %.6g, \"unit\": \"%s\", \"mbPerSecond\": "
                     "%.6g, \"p50Us\": %.6g, \"p99Us\": %.6g, \"maxUs\": %.6g}",
                     separator, measurement.name, figure.store.c_str(), measurement.value, unitText(measurement.unit),
                     measurement.megabytesPerSecond, measurement.p50Us, measurement.p99Us, measurement.maxUs);
        separator = ",\n";
    }
    std::fprintf(file.get(), "\n]}\n");
    return std::ferror(file.get()) == 0;
}

void endOnSignals() {
    struct sigaction action = {};
    action.sa_handler = [](int) { isInterrupted = 1; };
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

} // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    if (options.stores.empty()) {
        std::fprintf(stderr, "store_benchmark: no store is built in\n");
        return 0;
    }
    endOnSignals();
    ScratchDirectory directory(options.parentDirectory);
    bool isDone = true;
    std::vector<Figure> figures;
    std::printf("scale %g, %d round(s), %s; ratios above 1: the first store is better\n", options.scale, options.repeat,
                options.libraryDefaults ? "every library as it comes"
                                        : "equal buffers, filters and caches, no compression");
    printHeader(options.stores);
    for (const Workload& workload : options.workloads)
        if (isInterrupted == 0)
            isDone = runWorkload(workload, options, directory, &figures) && isDone;
    if (!options.jsonPath.empty())
        isDone = writeJson(options, figures) && isDone;
    return isDone && isInterrupted == 0 ? 0 : 1;
}
