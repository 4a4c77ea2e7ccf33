#include "core/object/ZnObject.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnEventLoop.h"

#include <benchmark/benchmark.h>
#include <vector>

namespace {

constexpr int kBatch = 256; // closures per look at the clock; below the pool's capacity

class Sender : public ZnObject {
public:
    void changed(int value) { emitSignal(&Sender::changed, value); }
};

void postAndRun(benchmark::State& state) {
    ZnCoreApplication application;
    long long ran = 0;
    for (auto _ : state) {
        const long long target = ran + kBatch;
        for (int i = 0; i < kBatch; ++i)
            application.postEvent([&ran] { ++ran; });
        application.processUntil([&] { return ran == target; }, 1000);
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(postAndRun);

void parkAndResume(benchmark::State& state) {
    ZnCoreApplication application;
    ZnEventLoop loop;
    bool stop = false;
    long long resumed = 0;
    application.postEvent([&] {
        while (!stop) {
            loop.exec();
            ++resumed;
        }
    });
    application.processUntil([&] { return loop.isRunning(); }, 1000);
    for (auto _ : state) {
        const long long target = resumed + 1;
        loop.quit();
        application.processUntil([&] { return resumed == target; }, 1000);
    }
    stop = true;
    loop.quit();
    application.processUntil([&] { return !loop.isRunning(); }, 1000);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(parkAndResume);

void emitDirect(benchmark::State& state) {
    ZnCoreApplication application;
    Sender sender;
    ZnObject receiver;
    long long sum = 0;
    sender.connect(&Sender::changed, &receiver, [&sum](int value) { sum += value; });
    for (auto _ : state)
        sender.changed(1);
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(emitDirect);

void emitQueued(benchmark::State& state) {
    ZnCoreApplication application;
    Sender sender;
    ZnObject receiver;
    long long received = 0;
    sender.connect(
        &Sender::changed, &receiver, [&received](int) { ++received; }, ZnConnectionType::QueuedConnection);
    for (auto _ : state) {
        const long long target = received + kBatch;
        for (int i = 0; i < kBatch; ++i)
            sender.changed(1);
        application.processUntil([&] { return received == target; }, 1000);
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(emitQueued);

/// Adds and fires one timer beside a number of others that are not due.
void timerAddAndFire(benchmark::State& state) {
    ZnCoreApplication application;
    constexpr int kFarUs = 1000000000;
    for (long i = 1; i < state.range(0); ++i)
        application.addTimer([] {}, kFarUs + static_cast<int>(i), true, 2);
    for (auto _ : state) {
        bool fired = false;
        application.addTimer([&fired] { fired = true; }, 1, true, 2);
        application.processUntil([&] { return fired; }, 1000);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(timerAddAndFire)->Arg(10)->Arg(10000);

} // namespace
