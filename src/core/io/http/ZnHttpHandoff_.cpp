#include "core/io/http/ZnHttpHandoff_.h"

#include "core/runtime/Thread.h"
#include "core/runtime/ZnCoreApplication.h"

#include <memory>
#include <utility>

void zn::http::handOver(zn::atomic::Thread* thread, ZnTask task) {
    constexpr int kLane = ZnFiberPool::kFirstLane;
    zn::atomic::Thread::withLive(thread, [&task](zn::atomic::Thread& record) {
        record.withApplicationOrPending(task, kLane, true, [&task](ZnCoreApplication& application) {
            if (application.tryPostOnLane(task, kLane))
                return true;
            // Timers that find no room fire later.
            application.addTimer([late = std::make_shared<ZnTask>(std::move(task))] { (*late)(); }, 1, true, kLane);
            return true;
        });
    });
}
