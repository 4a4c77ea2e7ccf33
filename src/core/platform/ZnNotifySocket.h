#pragma once

#include "core/platform/ZnWaitHandle.h"

#include <atomic>
#include <cstdint>
#include <memory>

/// The event of a process that other processes of its user set: a datagram socket without a file.
///
/// A full queue is a set event. Everybody on the machine can send to such a socket: what other users send does not
/// count, except that so much of it may have kept a real signal out.
/// Thread: any. Nothing here blocks.
class ZnNotifySocket final : public ZnWaitHandle {
public:
    /// The calling process's own. Null when its name is taken, or when the system has no descriptors.
    static std::shared_ptr<ZnNotifySocket> open();
    /// Sets the event of a process, if there is such a process and it has one.
    static void signal(std::uint32_t processId);

    bool noteReady(std::uint32_t readiness) override { return (readiness & ZnReadiness::kInput) != 0; }
    /// Resets the event; true when it was set. `*hasMore` tells that there was too much to take at once.
    bool take(bool* hasMore);

private:
    ZnNotifySocket(ZnFileDescriptor descriptor, int queueLimit)
        : ZnWaitHandle(std::move(descriptor)), queueLimit_(queueLimit) {}

    const int queueLimit_;              // so many datagrams fill the queue
    std::atomic<int> strangerCount_{0}; // datagrams of other users since the event was last set
};
