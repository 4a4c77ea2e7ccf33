#include "core/platform/ZnResolver.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>

namespace {

using Callback_ = std::function<void(const ZnResolver::Result&)>;

ZnResolver::Result askSystem(const char* host, int systemFamily, int flags, const char* service) {
    addrinfo hints = {};
    hints.ai_family = systemFamily;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    hints.ai_flags = flags;
    addrinfo* list = nullptr;
    if (::getaddrinfo(host, service, &hints, &list) != 0)
        return {};
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(list, &::freeaddrinfo);
    ZnResolver::Result result;
    for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
        const ZnSocketAddress address(entry->ai_addr, entry->ai_addrlen);
        if (address.family() != ZnSocketAddress::Family::None)
            result.push_back(address);
    }
    return result;
}

/// The lookups that run or wait, and their threads. Lives to the end of the process: a thread that hangs in the
/// system's lookup cannot be ended.
class LookupQueue_ {
public:
    static LookupQueue_& instance() {
        static LookupQueue_* const queue = new LookupQueue_;
        return *queue;
    }

    void add(const ZnString& host, Callback_ callback) {
        std::unique_lock<std::mutex> lock(mutex_);
        std::vector<Callback_>& waiting = lookups_[host];
        waiting.push_back(std::move(callback));
        if (waiting.size() == 1)
            queue_.push_back(host); // else under way already
        // An idle thread that has been woken but has not run yet still counts as idle: compare with what waits.
        if (queue_.size() > idleThreadCount_ && threadCount_ < ZnResolver::kMaxThreads)
            startThread_();
        wakeUp_.notify_one();
        if (threadCount_ > 0)
            return;
        queue_.pop_back(); // nobody would come to it
        answer_(lock, host, {});
    }

    void setLookup(ZnResolver::Lookup lookup) {
        std::lock_guard<std::mutex> guard(mutex_);
        lookup_ = std::move(lookup);
    }

    ZnResolver::Lookup lookup() {
        std::lock_guard<std::mutex> guard(mutex_);
        return lookup_;
    }

private:
    static constexpr std::chrono::seconds kIdleTime_{10};

    void startThread_() {
        // Stop signals are for threads that can serve them at once.
        sigset_t all = {};
        sigset_t previous = {};
        sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &previous);
        try {
            std::thread([this] { run_(); }).detach();
            ++threadCount_;
        } catch (const std::exception&) {
            // Out of threads: a running one takes the name.
        }
        ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    }

    void run_() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            ++idleThreadCount_;
            const bool hasWork = wakeUp_.wait_for(lock, kIdleTime_, [this] { return !queue_.empty(); });
            --idleThreadCount_;
            if (!hasWork)
                break;
            serve_(lock);
        }
        --threadCount_;
    }

    void serve_(std::unique_lock<std::mutex>& lock) {
        const ZnString host = std::move(queue_.front());
        queue_.pop_front();
        const ZnResolver::Lookup lookup = lookup_;
        lock.unlock();
        const ZnResolver::Result result =
            lookup ? lookup(host) : askSystem(host.data(), AF_UNSPEC, 0, nullptr);
        lock.lock();
        answer_(lock, host, result);
    }

    /// The lock is free while the callbacks run.
    void answer_(std::unique_lock<std::mutex>& lock, const ZnString& host, const ZnResolver::Result& result) {
        const auto at = lookups_.find(host);
        const std::vector<Callback_> waiting = std::move(at->second);
        lookups_.erase(at);
        lock.unlock();
        for (const Callback_& callback : waiting)
            callback(result);
        lock.lock();
    }

    std::mutex mutex_;
    std::condition_variable wakeUp_;
    std::deque<ZnString> queue_;                        // names that wait for a thread
    std::map<ZnString, std::vector<Callback_>> lookups_; // names that wait or run, with who asked
    std::size_t threadCount_ = 0;
    std::size_t idleThreadCount_ = 0;
    ZnResolver::Lookup lookup_; // null: the system's
};

} // namespace

void ZnResolver::resolve(const ZnString& host, std::function<void(const Result&)> callback) {
    LookupQueue_::instance().add(host, std::move(callback));
}

ZnResolver::Result ZnResolver::resolveNow(const ZnString& host) {
    const Lookup lookup = LookupQueue_::instance().lookup();
    return lookup ? lookup(host) : askSystem(host.data(), AF_UNSPEC, 0, nullptr);
}

ZnResolver::Result ZnResolver::resolvePassive(const ZnString& host, ZnSocketAddress::Family family,
                                              unsigned short port) {
    const int systemFamily = family == ZnSocketAddress::Family::IPv4   ? AF_INET
                             : family == ZnSocketAddress::Family::IPv6 ? AF_INET6
                                                                       : AF_UNSPEC;
    return askSystem(host.isEmpty() ? nullptr : host.data(), systemFamily, AI_PASSIVE,
                     ZnString::number(static_cast<int>(port)).data());
}

void ZnResolver::setLookupForTests(Lookup lookup) {
    LookupQueue_::instance().setLookup(std::move(lookup));
}
