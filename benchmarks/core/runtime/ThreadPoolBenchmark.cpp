#include "core/runtime/ZnThreadPool.h"

#include "core/platform/ZnMonotonicClock.h"

#include <atomic>
#include <benchmark/benchmark.h>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace {

constexpr int kTasks = 20000; // per look at the clock

/// The least that a pool can be: one queue, one lock, one condition.
class MinimalPool {
public:
    explicit MinimalPool(int threadCount) {
        for (int i = 0; i < threadCount; ++i)
            threads_.emplace_back([this] { work_(); });
    }
    ~MinimalPool() {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            ending_ = true;
        }
        condition_.notify_all();
        for (std::thread& thread : threads_)
            thread.join();
    }
    void start(ZnRunnable* task) {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            tasks_.push_back(task);
        }
        condition_.notify_one();
    }

private:
    void work_() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            condition_.wait(lock, [this] { return ending_ || !tasks_.empty(); });
            if (tasks_.empty())
                return;
            ZnRunnable* task = tasks_.front();
            tasks_.pop_front();
            lock.unlock();
            task->run();
            delete task;
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable condition_;
    std::deque<ZnRunnable*> tasks_; // guarded by mutex_
    bool ending_ = false;           // guarded by mutex_
    std::vector<std::thread> threads_;
};

/// Nanoseconds from the first start to the end of the last task.
template <typename Pool>
long long timeOf(Pool& pool, int starterCount, int spins) {
    std::atomic<int> left{kTasks};
    const long long startNs = monotonicNowNs();
    const auto startAll = [&] {
        for (int i = 0; i < kTasks / starterCount; ++i) {
            pool.start(new ZnCallableRunnable([&left, spins] {
                for (int spin = 0; spin < spins; ++spin)
                    benchmark::DoNotOptimize(spin);
                if (left.fetch_sub(1, std::memory_order_release) == 1)
                    left.notify_one();
            }));
        }
    };
    std::vector<std::thread> starters;
    for (int i = 1; i < starterCount; ++i)
        starters.emplace_back(startAll);
    startAll();
    for (int seen = 0; (seen = left.load(std::memory_order_acquire)) != 0;)
        left.wait(seen);
    for (std::thread& starter : starters)
        starter.join();
    return monotonicNowNs() - startNs;
}

/// Both pools in turn: worker threads, threads that start tasks, turns of a loop in each task.
void poolAgainstMinimal(benchmark::State& state) {
    const int workerCount = static_cast<int>(state.range(0));
    const int starterCount = static_cast<int>(state.range(1));
    const int spins = static_cast<int>(state.range(2));
    ZnThreadPool pool;
    pool.setMaxThreadCount(workerCount);
    pool.setMaxQueuedTaskCount(-1);
    MinimalPool minimal(workerCount);
    long long poolNs = 0;
    long long minimalNs = 0;
    for (auto _ : state) {
        minimalNs += timeOf(minimal, starterCount, spins);
        poolNs += timeOf(pool, starterCount, spins);
    }
    const double tasks = static_cast<double>(state.iterations()) * kTasks;
    state.counters["pool_tasks_per_s"] = tasks * 1e9 / static_cast<double>(poolNs);
    state.counters["minimal_tasks_per_s"] = tasks * 1e9 / static_cast<double>(minimalNs);
    state.counters["ratio"] = static_cast<double>(minimalNs) / static_cast<double>(poolNs);
}
BENCHMARK(poolAgainstMinimal)
    ->ArgNames({"workers", "starters", "spins"})
    ->Args({1, 1, 0})
    ->Args({2, 1, 0})
    ->Args({2, 2, 0})
    ->Args({4, 2, 0})
    ->Args({2, 2, 2000})
    ->UseRealTime();

} // namespace
