#include "agent/McpWork.h"

#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnEventLoop.h"
#include "core/runtime/ZnTimer.h"

#include <atomic>
#include <memory>
#include <utility>

namespace mcp {
namespace {

struct Wait_ {
    int waitId = 0;
    std::atomic<bool> hasEnded{false}; // set by the worker before it unblocks; see ZnFiberPool::yieldCurrent
    std::atomic<bool> hasRun{false};   // stored before hasEnded
};

/// Wakes the fiber when the work is done, and also when the pool drops it.
class Work_ final : public ZnRunnable {
public:
    Work_(std::shared_ptr<Wait_> wait, std::function<void()> work) : wait_(std::move(wait)), work_(std::move(work)) {}
    ~Work_() override {
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
    const std::shared_ptr<Wait_> wait_;
    std::function<void()> work_;
};

} // namespace

bool awaitWork(ZnThreadPool& pool, std::function<void()> work) {
    ZnCoreApplication* application = ZnCoreApplication::instance();
    if (application == nullptr || !application->fiberPool().isOnFiber()) {
        work();
        return true;
    }
    const auto wait = std::make_shared<Wait_>();
    wait->waitId = nextFiberWaitId();
    auto task = std::make_unique<Work_>(wait, std::move(work));
    if (!pool.tryStart(task.get())) {
        task->runHere(); // no thread to be had
        return true;
    }
    static_cast<void>(task.release());
    application->fiberPool().yieldCurrent(wait->waitId, &wait->hasEnded);
    return wait->hasRun.load(std::memory_order_acquire);
}

void letOthersRun() {
    ZnCoreApplication* application = ZnCoreApplication::instance();
    if (application == nullptr || !application->fiberPool().isOnFiber())
        return;
    ZnEventLoop turn;
    ZnTimer timer;
    timer.setSingleShot(true);
    timer.connect(&ZnTimer::timeout, &turn, &ZnEventLoop::quit);
    timer.start(0);
    turn.exec();
}

} // namespace mcp
