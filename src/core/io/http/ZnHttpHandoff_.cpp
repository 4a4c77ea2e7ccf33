#include "core/io/http/ZnHttpHandoff_.h"

#include "core/runtime/ZnPost.h"

void zn::http::handOver(zn::atomic::Thread* thread, ZnTask task) {
    postTask(thread, task, {.lane = ZnFiberPool::kFirstLane, .whenFull = ZnPostOptions::WhenFull::Wait});
}
