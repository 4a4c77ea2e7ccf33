#include "core/runtime/ZnThread.h"

#include "core/runtime/ZnCoreApplication.h"
#include "core/types/ZnLogger.h"

namespace {
constexpr const char* kCategory = "zn.core.runtime.znthread";
} // namespace

ZnThread::ZnThread(ZnString name, ZnObject* parent)
    : ZnObject(parent), thread_(std::make_unique<zn::atomic::Thread>(std::move(name))) {
    // Neither outlives this object: the destructor joins the thread, or is on it and takes them back.
    thread_->setOnStart([this] { started(); });
    thread_->setOnFinish([this] { finished(); });
}

ZnThread::~ZnThread() {
    quit();
    if (!isCurrent()) {
        thread_->join();
        return;
    }
    thread_->setOnStart(nullptr);
    thread_->setOnFinish(nullptr);
    thread_.release()->deleteAtEnd();
}

bool ZnThread::start() {
    if (isRunning()) {
        ZN_LOG_WARNING(kCategory, "ZnThread::start") << "start() called on already-running ZnThread '" << name() << "'";
        return false;
    }
    if (!thread_->start()) // also from a slot of `finished`, which is on the thread itself
        return false;
    ZnTask callRun([self = ZnPointer<ZnThread>(this)] {
        if (self)
            self->run();
    });
    // Not kept for a later start when the thread has ended already.
    postTask(*thread_, callRun,
             {.whenFull = ZnPostOptions::WhenFull::RefuseInSilence,
              .whenNotRunning = ZnPostOptions::WhenNotRunning::Refuse});
    return true;
}

void ZnThread::run() {}

void ZnThread::quit() {
    if (isRunning())
        thread_->requestStop();
}

void ZnThread::wait() {
    if (!isCurrent())
        thread_->join();
}

bool ZnThread::isCurrent() const {
    return zn::atomic::Thread::currentThread() == thread_.get();
}

void ZnThread::started() {
    emitSignal(&ZnThread::started);
}

void ZnThread::finished() {
    emitSignal(&ZnThread::finished);
}
