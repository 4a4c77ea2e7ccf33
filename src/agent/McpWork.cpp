#include "agent/McpWork.h"

#include "core/platform/ZnThreadControl.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnTimer.h"

#include <atomic>
#include <memory>
#include <utility>

namespace {

constexpr int kWorkerCount = 2;

struct Wait {
    int waitId = 0;
    std::atomic<bool> hasEnded{false}; // set by the worker before it unblocks; see ZnFiberPool::yieldCurrent
    std::atomic<bool> hasRun{false};   // stored before hasEnded
};

/// Wakes the fiber when the work is done, and also when the pool drops it.
class Work final : public ZnRunnable {
public:
    Work(std::shared_ptr<Wait> wait, std::function<void()> work) : wait_(std::move(wait)), work_(std::move(work)) {}
    ~Work() override {
        work_ = nullptr; // what it holds is given up on this thread
        wait_->hasEnded.store(true, std::memory_order_release);
        unblockFiber(wait_->waitId, ZnFiberPool::kFirstLane);
    }
    void run() override {
        work_();
        wait_->hasRun.store(true, std::memory_order_release);
    }
    void runHere() { work_(); }

private:
    const std::shared_ptr<Wait> wait_;
    std::function<void()> work_;
};

} // namespace

McpWorkers::McpWorkers() {
    pool_.setMaxThreadCount(kWorkerCount);
    pool_.setMaxQueuedTaskCount(-1); // the calls in flight are bounded
}

bool McpWorkers::await(std::function<void()> work) {
    ZnCoreApplication* application = ZnCoreApplication::instance();
    if (application == nullptr || !application->fiberPool().isOnFiber()) {
        work();
        return true;
    }
    const auto wait = std::make_shared<Wait>();
    wait->waitId = nextFiberWaitId();
    auto task = std::make_unique<Work>(wait, std::move(work));
    if (!pool_.tryStart(task.get())) {
        task->runHere(); // no thread to be had
        return true;
    }
    static_cast<void>(task.release());
    application->fiberPool().yieldCurrent(wait->waitId, &wait->hasEnded);
    return wait->hasRun.load(std::memory_order_acquire);
}

void McpWorkers::giveMemoryBackSoon() {
    constexpr int kDelayMs = 500; // for a burst once, and after the end of most calls
    if (ZnCoreApplication::instance() == nullptr || std::exchange(isMemoryDue_, true))
        return;
    ZnTimer::singleShot(kDelayMs, [self = weak_from_this()] {
        const std::shared_ptr<McpWorkers> workers = self.lock();
        if (workers == nullptr)
            return;
        workers->isMemoryDue_ = false;
        const auto giveBack = [] { ZnThreadControl::giveMemoryBack(); };
        workers->pool_.start(new ZnCallableRunnable<decltype(giveBack)>(giveBack));
    });
}
