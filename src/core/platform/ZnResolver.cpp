#include "core/platform/ZnResolver.h"

#include "core/types/ZnMutexUnlocker.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <sstream>
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

/// Whether the name is one of this machine's own: its lookup asks no name server on a system that is set up as usual.
bool isLocalName(const ZnString& host) {
    const std::string name = host.toLower().str();
    if (name == "localhost" || name.ends_with(".localhost"))
        return true;
    std::ifstream hosts("/etc/hosts");
    for (std::string line; std::getline(hosts, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string word;
        for (words >> word; words >> word;) // the first is the address
            if (ZnString(word).equalsIgnoreCase(name))
                return true;
    }
    return false;
}

/// The lookups that run or wait, and their threads. Lives to the end of the process: a thread that hangs in the
/// system's lookup cannot be ended.
class LookupQueue_ {
public:
    static LookupQueue_& instance() {
        static LookupQueue_* const queue = new LookupQueue_;
        return *queue;
    }

    unsigned long long add(const ZnString& host, Callback_ callback) {
        const ZnMutexLocker locker(mutex_);
        const unsigned long long id = ++lastId_;
        hostById_[id] = host;
        const auto [at, isNew] = lookups_.try_emplace(host);
        Query_& query = at->second;
        abandonedCount_ -= query.isRunning && query.waiting.empty() ? 1 : 0;
        query.waiting.emplace(id, std::move(callback));
        if (!isNew)
            return id; // under way already
        queue_.push_back(host);
        provideThread_();
        if (threadCount_ == 0) { // nobody would come to it
            queue_.pop_back();
            answer_(host, {});
        }
        return id;
    }

    void withdraw(unsigned long long id) {
        std::map<unsigned long long, Callback_>::node_type dropped; // its captures are destroyed when the lock is free
        const ZnMutexLocker locker(mutex_);
        const auto host = hostById_.extract(id);
        if (host.empty())
            return;
        const auto at = lookups_.find(host.mapped());
        dropped = at->second.waiting.extract(id);
        if (!at->second.waiting.empty())
            return;
        if (at->second.isRunning) {
            ++abandonedCount_;
            provideThread_();
        } else {
            std::erase(queue_, at->first);
            lookups_.erase(at);
        }
    }

    void setLookup(ZnResolver::Lookup lookup) {
        const ZnMutexLocker locker(mutex_);
        lookup_ = std::move(lookup);
    }

    ZnResolver::Lookup lookup() {
        const ZnMutexLocker locker(mutex_);
        return lookup_;
    }

private:
    static constexpr std::chrono::seconds kIdleTime_{10};

    struct Query_ {
        std::map<unsigned long long, Callback_> waiting; // by id
        bool isRunning = false;                          // else it is in queue_
        bool isChecked = false;                          // whether it is a name of this machine
    };

    std::size_t permittedThreadCount_() const ZN_REQUIRES(mutex_) {
        return ZnResolver::kMaxThreads + std::min(abandonedCount_, ZnResolver::kMaxAbandoned);
    }

    /// Sees to it that somebody comes to what has been queued.
    void provideThread_() ZN_REQUIRES(mutex_) {
        // An idle thread that has been woken but has not run yet still counts as idle: compare with what waits.
        if (queue_.size() > idleThreadCount_) {
            if (threadCount_ < permittedThreadCount_())
                threadCount_ += startThread_([this] { run_(); }) ? 1 : 0;
            else if (!localThreadRuns_)
                localThreadRuns_ = startThread_([this] { runLocal_(); });
            else
                isLocalDue_ = true;
        }
        wakeUp_.notify_one();
    }

    /// False when the system is out of threads: a running one takes the name.
    template <typename Body>
    bool startThread_(Body body) {
        // Stop signals are for threads that can serve them at once.
        sigset_t all = {};
        sigset_t previous = {};
        sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &previous);
        bool hasStarted = true;
        try {
            std::thread(body).detach();
        } catch (const std::exception&) {
            hasStarted = false;
        }
        ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        return hasStarted;
    }

    void run_() {
        const ZnMutexLocker locker(mutex_);
        while (threadCount_ <= permittedThreadCount_()) { // else one that was abandoned has come back
            ++idleThreadCount_;
            const auto until = std::chrono::steady_clock::now() + kIdleTime_;
            while (queue_.empty() && wakeUp_.wait_until(mutex_, until) == std::cv_status::no_timeout) {
            }
            --idleThreadCount_;
            if (queue_.empty())
                break;
            serve_(ZnString(queue_.front()));
        }
        --threadCount_;
    }

    /// Looks through the queue for names of this machine.
    void runLocal_() {
        const ZnMutexLocker locker(mutex_);
        do {
            isLocalDue_ = false;
            for (const ZnString& host : std::deque<ZnString>(queue_)) {
                auto at = lookups_.find(host);
                if (at == lookups_.end() || at->second.isRunning || std::exchange(at->second.isChecked, true))
                    continue;
                bool isLocal = false;
                {
                    const ZnMutexUnlocker unlocker(mutex_);
                    isLocal = isLocalName(host);
                }
                at = lookups_.find(host);
                if (isLocal && at != lookups_.end() && !at->second.isRunning)
                    serve_(host);
            }
        } while (isLocalDue_);
        localThreadRuns_ = false;
    }

    /// Takes a name out of the queue and looks it up.
    void serve_(const ZnString& host) ZN_REQUIRES(mutex_) {
        std::erase(queue_, host);
        lookups_[host].isRunning = true;
        const ZnResolver::Lookup lookup = lookup_;
        ZnResolver::Result result;
        {
            const ZnMutexUnlocker unlocker(mutex_);
            result = lookup ? lookup(host) : askSystem(host.data(), AF_UNSPEC, 0, nullptr);
        }
        answer_(host, result);
    }

    /// The lock is free while the callbacks run.
    void answer_(const ZnString& host, const ZnResolver::Result& result) ZN_REQUIRES(mutex_) {
        const Query_ query = std::move(lookups_.extract(host).mapped());
        abandonedCount_ -= query.waiting.empty() ? 1 : 0;
        for (const auto& [id, callback] : query.waiting)
            hostById_.erase(id);
        const ZnMutexUnlocker unlocker(mutex_);
        for (const auto& [id, callback] : query.waiting)
            callback(result);
    }

    ZnMutex mutex_;
    std::condition_variable_any wakeUp_;
    std::deque<ZnString> queue_ ZN_GUARDED_BY(mutex_);                      // names that wait for a thread
    std::map<ZnString, Query_> lookups_ ZN_GUARDED_BY(mutex_);              // names that wait or run, with who asked
    std::map<unsigned long long, ZnString> hostById_ ZN_GUARDED_BY(mutex_); // of those who wait
    unsigned long long lastId_ ZN_GUARDED_BY(mutex_) = 0;
    std::size_t threadCount_ ZN_GUARDED_BY(mutex_) = 0;
    std::size_t idleThreadCount_ ZN_GUARDED_BY(mutex_) = 0;
    std::size_t abandonedCount_ ZN_GUARDED_BY(mutex_) = 0; // running lookups that nobody waits for
    bool localThreadRuns_ ZN_GUARDED_BY(mutex_) = false;
    bool isLocalDue_ ZN_GUARDED_BY(mutex_) = false;   // names were queued since it has begun its round
    ZnResolver::Lookup lookup_ ZN_GUARDED_BY(mutex_); // null: the system's
};

} // namespace

unsigned long long ZnResolver::resolve(const ZnString& host, std::function<void(const Result&)> callback) {
    return LookupQueue_::instance().add(host, std::move(callback));
}

void ZnResolver::withdraw(unsigned long long id) {
    LookupQueue_::instance().withdraw(id);
}

ZnResolver::Result ZnResolver::resolveNow(const ZnString& host) {
    const Lookup lookup = LookupQueue_::instance().lookup();
    return lookup ? lookup(host) : askSystem(host.data(), AF_UNSPEC, 0, nullptr);
}

ZnResolver::Result ZnResolver::resolvePassive(const ZnString& host, unsigned short port) {
    const Lookup lookup = LookupQueue_::instance().lookup();
    Result addresses = lookup && !host.isEmpty()
                           ? lookup(host)
                           : askSystem(host.isEmpty() ? nullptr : host.data(), AF_UNSPEC, AI_PASSIVE, "0");
    for (ZnSocketAddress& address : addresses)
        address = address.withPort(port);
    return addresses;
}

void ZnResolver::setLookupForTests(Lookup lookup) {
    LookupQueue_::instance().setLookup(std::move(lookup));
}
