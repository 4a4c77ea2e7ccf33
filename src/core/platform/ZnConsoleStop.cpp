#include "core/platform/ZnConsoleStop.h"

#include "core/types/ZnMutex.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <sched.h>
#include <unistd.h>

namespace ZnConsoleStop {
namespace {

// A signal handler can take no lock, so the targets hang in a list that only grows: a node is never freed,
// its place is used again. Every operation of the handler is lock-free.
struct Node_ {
    std::atomic<ZnConsoleStopTarget*> target{nullptr};
    Node_* next = nullptr;
};

std::atomic<Node_*> firstNode{nullptr}; // published with release; pairs with the handler's acquire
std::atomic<int> handlersRunning{0};    // remove() waits for 0, so that no handler holds its target
std::atomic<bool> stopSeen{false};      // set by the first stop signal, cleared with the last target
ZnMutex changeMutex;                    // serialises add and remove; never taken in the handler
int targetCount ZN_GUARDED_BY(changeMutex) = 0;

void onStopSignal(int signalNumber) {
    const int savedErrno = errno;
    if (stopSeen.exchange(true, std::memory_order_acq_rel))
        ::_exit(128 + signalNumber);
    bool found = false;
    handlersRunning.fetch_add(1, std::memory_order_seq_cst);
    for (Node_* node = firstNode.load(std::memory_order_acquire); node != nullptr; node = node->next) {
        if (ZnConsoleStopTarget* target = node->target.load(std::memory_order_seq_cst)) {
            if (target->requestStop())
                found = true;
        }
    }
    if (!found)
        ::_exit(128 + signalNumber); // nobody is left who could end in order
    handlersRunning.fetch_sub(1, std::memory_order_seq_cst);
    errno = savedErrno;
}

void installHandlers() {
    struct sigaction action = {};
    action.sa_handler = onStopSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (const int signalNumber : {SIGINT, SIGQUIT, SIGHUP, SIGTERM}) {
        struct sigaction inherited = {};
        ::sigaction(signalNumber, nullptr, &inherited);
        // A shell's background job is started with SIGINT ignored, and nohup ignores SIGHUP: both mean it.
        if (signalNumber == SIGTERM || inherited.sa_handler != SIG_IGN)
            ::sigaction(signalNumber, &action, nullptr);
    }
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &ignore, nullptr);
}

Node_* freeNode() {
    for (Node_* node = firstNode.load(std::memory_order_relaxed); node != nullptr; node = node->next) {
        if (node->target.load(std::memory_order_relaxed) == nullptr)
            return node;
    }
    return nullptr;
}

} // namespace

void add(ZnConsoleStopTarget* target) {
    const ZnMutexLocker locker(changeMutex);
    static const bool installed = (installHandlers(), true);
    static_cast<void>(installed);
    ++targetCount;
    if (Node_* node = freeNode()) {
        node->target.store(target, std::memory_order_seq_cst);
        return;
    }
    Node_* node = new Node_;
    node->target.store(target, std::memory_order_relaxed);
    node->next = firstNode.load(std::memory_order_relaxed);
    firstNode.store(node, std::memory_order_release);
}

void remove(ZnConsoleStopTarget* target) {
    const ZnMutexLocker locker(changeMutex);
    for (Node_* node = firstNode.load(std::memory_order_relaxed); node != nullptr; node = node->next) {
        if (node->target.load(std::memory_order_relaxed) == target)
            node->target.store(nullptr, std::memory_order_seq_cst);
    }
    // A handler on another thread may have read the target just before. One that interrupts this thread ends
    // before this thread goes on, so the wait cannot lock up.
    while (handlersRunning.load(std::memory_order_seq_cst) != 0)
        ::sched_yield();
    if (--targetCount == 0)
        stopSeen.store(false, std::memory_order_release);
}

} // namespace ZnConsoleStop
