#include "core/runtime/ZnPost.h"

#include "core/runtime/Thread.h"
#include "core/runtime/ZnCoreApplication.h"

using zn::atomic::Thread;

ZnPostResult postTask(Thread& target, ZnTask& task, ZnPostOptions options) {
    ZnFiberPool::Rejection rejection;
    const ZnPostResult result = target.offer(task, options, &rejection);
    ZnCoreApplication::logRejected(rejection); // without the thread's lock
    return result;
}

ZnPostResult postTask(Thread* target, ZnTask& task, ZnPostOptions options) {
    ZnFiberPool::Rejection rejection;
    ZnPostResult result = ZnPostResult::Gone;
    Thread::withLive(target, [&](Thread& record) { result = record.offer(task, options, &rejection); });
    ZnCoreApplication::logRejected(rejection);
    if (result != ZnPostResult::Gone || options.whenGone == ZnPostOptions::WhenGone::Refuse)
        return result;
    target = Thread::currentThread();
    if (target == nullptr)
        target = Thread::fallbackThread();
    return target != nullptr ? postTask(*target, task, options) : ZnPostResult::Gone;
}

bool postToThread(Thread* target, ZnTask task, int lane) {
    return postTask(*target, task, {.lane = lane}) == ZnPostResult::Queued;
}
