#pragma once

#include "core/ipc/SignalValue.h"
#include "core/types/ZnString.h"

#include <cstdint>
#include <functional>
#include <memory>

namespace zn::ipc {

/// Listens to one signal of one publisher.
///
/// Calls back with the latest publication whenever there is one that it has not seen; publications that follow each
/// other quickly are seen as one, the last one never is missed. Those before the subscription do not count. Thread:
/// made and ended on a thread with an event loop, before that loop ends; the callback runs there, on a fiber, so it may
/// park. It is not called again while it runs, and what comes meanwhile follows. Owner: whoever subscribed. In a child
/// that has been forked it is silent.
class Subscription {
public:
    using Callback = std::function<void(const SignalValue&)>;

    /// `subscriberObject` tells subscriptions of one process apart, for people; may be empty. Null, with the reason, on
    /// failure: texts of more than 64, 64 and 160 bytes, a domain with 512 subscriptions, shared memory that others
    /// hold.
    static std::unique_ptr<Subscription> subscribe(const ZnString& domain, const ZnString& object,
                                                   const ZnString& signal, const ZnString& subscriberObject,
                                                   Callback callback, ZnString* errorText);
    /// The callback does not begin any more; it may end its own subscription.
    ~Subscription();
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

    std::uint64_t id() const;
    /// Whether publishers know of it. False for a while when another process stands still with the registry's mutex.
    bool isRegistered() const;

private:
    class Core_;
    explicit Subscription(std::shared_ptr<Core_> core);

    const std::shared_ptr<Core_> core_;
};

} // namespace zn::ipc
