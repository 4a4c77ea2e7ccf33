#include "core/ipc/SubscribersRegistryTable.h"

#include "core/ipc/Names.h"
#include "core/platform/ZnMonotonicClock.h"
#include "core/platform/ZnProcess.h"
#include "core/types/ZnLogger.h"
#include "core/types/ZnMutex.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>

namespace zn::ipc::detail {

namespace {

constexpr const char* kCategory = "zn.core.ipc.subscribersregistrytable";
constexpr char kMagic[4] = {'1', 'B', 'U', 'S'};
constexpr char kTimestampMagic[4] = {'1', 'S', 'M', 'T'};
constexpr std::uint32_t kVersion = 1;
constexpr std::uint64_t kProcessCheckMs = 100;

static_assert(sizeof(RegistryRow) == 312 && offsetof(RegistryRow, signal) == 152);
static_assert(sizeof(RegistryTable) == 159760 && offsetof(RegistryTable, rows) == 16);

std::uint64_t nowMs() {
    return static_cast<std::uint64_t>(monotonicNowNs() / 1000000);
}

template <std::size_t kBytes>
std::string_view textOf(const char (&field)[kBytes]) {
    return {field, ::strnlen(field, kBytes)};
}

template <std::size_t kBytes>
void setText(char (&field)[kBytes], const ZnString& text) {
    std::memcpy(field, text.data(), std::min(text.size(), kBytes)); // the rest is 0 already
}

RegistryRow rowFor(const SubscriptionKey& key, std::uint32_t refCount) {
    RegistryRow row = {};
    row.id = subscriptionId(key.domain, key.object, key.signal, key.pid, key.subscriberObject);
    row.lastSeenMs = nowMs();
    row.pid = key.pid;
    row.refCount = refCount;
    setText(row.domain, key.domain);
    setText(row.object, key.object);
    setText(row.signal, key.signal);
    return row;
}

bool isFor(const RegistryRow& row, std::string_view domain, std::string_view object, std::string_view signal) {
    return textOf(row.signal) == signal && textOf(row.object) == object && textOf(row.domain) == domain;
}

/// The registries that this process has opened. Never destroyed, since threads may use it to the very end; its content
/// is destroyed when the process ends in order, so that shared memory does not stay.
class Cache {
public:
    static Cache& instance() {
        static Cache& cache = *new Cache;
        return cache;
    }

    std::shared_ptr<RegistryTable::Mapping> open(const ZnString& domain) {
        const ZnMutexLocker locker(mutex_);
        if (forkCount_ != ZnProcess::forkCount())
            beginAnew_();
        if (isClosed_)
            return nullptr;
        auto& mapping = mappings_[domain];
        if (!mapping)
            mapping = openNew_(domain);
        return mapping;
    }

private:
    Cache() : forkCount_(ZnProcess::forkCount()) {
        std::atexit([] { instance().close_(); });
    }

    /// In a child: what it has of its parent's stays untouched.
    void beginAnew_() ZN_REQUIRES(mutex_) {
        forkCount_ = ZnProcess::forkCount();
        mappings_.clear();
        refused_.clear();
    }
    void close_() {
        std::map<ZnString, std::shared_ptr<RegistryTable::Mapping>> mappings;
        const ZnMutexLocker locker(mutex_);
        isClosed_ = true;
        mappings.swap(mappings_);
    }
    std::shared_ptr<RegistryTable::Mapping> openNew_(const ZnString& domain) ZN_REQUIRES(mutex_) {
        ZnString reason;
        auto memory = ZnSharedMemory::open(registryName(domain), sizeof(RegistryTable), {}, &reason);
        auto mutex = memory ? ZnSharedMutex::open(registryMutexName(domain), &reason) : nullptr;
        if (!reason.isEmpty() && refused_.insert(domain).second)
            ZN_LOG_ERROR(kCategory, "SubscribersRegistryTable::open") << "Registry of subscribers: " << reason;
        if (!memory)
            return nullptr;
        auto mapping = std::make_shared<RegistryTable::Mapping>(std::move(memory), std::move(mutex));
        mapping->withTable(kLockWaitMs, [](RegistryTable&) {}); // empties a table of another kind
        return mapping;
    }

    ZnMutex mutex_; // the mutexes of registries are taken after it
    std::map<ZnString, std::shared_ptr<RegistryTable::Mapping>> mappings_ ZN_GUARDED_BY(mutex_);
    std::set<ZnString> refused_ ZN_GUARDED_BY(mutex_); // domains that the log knows of
    unsigned forkCount_ ZN_GUARDED_BY(mutex_);
    bool isClosed_ ZN_GUARDED_BY(mutex_) = false;
};

/// Runs `work` with the domain's table.
template <typename Work>
RegistryOutcome withRegistry(const ZnString& domain, int waitMs, Work work) {
    const std::shared_ptr<RegistryTable::Mapping> mapping = RegistryTable::open(domain);
    if (!mapping)
        return RegistryOutcome::NoRegistry;
    return mapping->withTable(waitMs, [&](RegistryTable& table) { work(table, *mapping); }) ? RegistryOutcome::Done
                                                                                            : RegistryOutcome::Busy;
}

bool isStale(const RegistryRow& row, std::uint64_t now, bool checksProcess) {
    const std::uint64_t lastSeenMs = row.lastSeenMs;
    const std::uint32_t pid = row.pid;
    const bool isSilent = now >= lastSeenMs && now - lastSeenMs > RegistryTable::kMaxSilenceMs;
    return pid == 0 || lastSeenMs == 0 || row.refCount == 0 || isSilent || (checksProcess && isProcessGone(pid) == 1);
}

void purge(RegistryTable& table, std::uint64_t now, bool checksProcesses) {
    for (std::uint32_t index = 0; index < table.rowCount();) {
        if (isStale(table.rows[index], now, checksProcesses))
            table.removeAt(index);
        else
            ++index;
    }
}

} // namespace

template <std::uint32_t kRowCapacity>
std::shared_ptr<typename SubscribersRegistryTable<kRowCapacity>::Mapping>
SubscribersRegistryTable<kRowCapacity>::open(const ZnString& domain) {
    return Cache::instance().open(domain);
}

template <std::uint32_t kRowCapacity>
void SubscribersRegistryTable<kRowCapacity>::repair() {
    const bool isTable = std::memcmp(magic, kMagic, sizeof(kMagic)) == 0 && version == kVersion;
    if (!isTable || std::memcmp(timestampMagic, kTimestampMagic, sizeof(kTimestampMagic)) != 0) {
        count = 0;
        std::memset(rows, 0, sizeof(rows));
        std::memcpy(magic, kMagic, sizeof(kMagic));
        version = kVersion;
        std::memcpy(timestampMagic, kTimestampMagic, sizeof(kTimestampMagic));
    }
    count = rowCount();
}

template <std::uint32_t kRowCapacity>
std::uint32_t SubscribersRegistryTable<kRowCapacity>::rowCount() const {
    // Read once: what was checked is what is used, whoever writes there meanwhile.
    const std::uint32_t rowsInUse = *static_cast<const volatile std::uint32_t*>(&count);
    return std::min(rowsInUse, kRowCapacity);
}

template <std::uint32_t kRowCapacity>
std::uint32_t SubscribersRegistryTable<kRowCapacity>::find(std::uint64_t id) const {
    const std::uint32_t end = rowCount();
    for (std::uint32_t index = 0; index < end; ++index) {
        if (rows[index].id == id)
            return index;
    }
    return kRowCapacity;
}

template <std::uint32_t kRowCapacity>
bool SubscribersRegistryTable<kRowCapacity>::append(const RegistryRow& row) {
    const std::uint32_t end = rowCount();
    if (end == kRowCapacity)
        return false;
    rows[end] = row;
    // The row first: who dies in between leaves a table without it, not a table with half of it.
    std::atomic_thread_fence(std::memory_order_release);
    count = end + 1;
    return true;
}

template <std::uint32_t kRowCapacity>
void SubscribersRegistryTable<kRowCapacity>::removeAt(std::uint32_t index) {
    const std::uint32_t rowsInUse = rowCount();
    if (index >= rowsInUse)
        return;
    const std::uint32_t last = rowsInUse - 1;
    if (index != last)
        rows[index] = rows[last];
    std::atomic_thread_fence(std::memory_order_release);
    count = last;
}

/// The last owner died, perhaps while it moved the last row into the place of another: then the row is there twice, and
/// the copy in front may be half of it. A row that is damaged otherwise is refreshed by nobody and purged in time.
template <std::uint32_t kRowCapacity>
void SubscribersRegistryTable<kRowCapacity>::Mapping::dropHalfMoved_(SubscribersRegistryTable& table) {
    const std::uint32_t rowsInUse = table.rowCount();
    if (rowsInUse == 0)
        return;
    const std::uint32_t first = table.find(table.rows[rowsInUse - 1].id);
    if (first < rowsInUse - 1)
        table.removeAt(first);
}

template <std::uint32_t kRowCapacity>
bool SubscribersRegistryTable<kRowCapacity>::Mapping::isProcessCheckDue(std::uint64_t nowMs) {
    if (nowMs - lastProcessCheckMs_.load(std::memory_order_relaxed) < kProcessCheckMs)
        return false;
    lastProcessCheckMs_.store(nowMs, std::memory_order_relaxed);
    return true;
}

template struct SubscribersRegistryTable<512>;

void purgeStaleRows(RegistryTable& table, std::uint64_t nowMs) {
    purge(table, nowMs, true);
}

RegistryOutcome registerSubscription(const SubscriptionKey& key, int waitMs) {
    RegistryRow row = rowFor(key, 1);
    bool isFull = false;
    const RegistryOutcome outcome = withRegistry(key.domain, waitMs, [&](RegistryTable& table, auto&) {
        purgeStaleRows(table, nowMs());
        const std::uint32_t index = table.find(row.id);
        if (index == RegistryTable::kCapacity) {
            isFull = !table.append(row);
            return;
        }
        row.refCount = table.rows[index].refCount + 1;
        table.rows[index] = row;
    });
    return isFull ? RegistryOutcome::Full : outcome;
}

RegistryOutcome refreshSubscription(const SubscriptionKey& key, std::uint32_t refCount, int waitMs) {
    const RegistryRow row = rowFor(key, refCount);
    bool isFull = false;
    const RegistryOutcome outcome = withRegistry(key.domain, waitMs, [&](RegistryTable& table, auto&) {
        const std::uint32_t index = table.find(row.id);
        if (index < RegistryTable::kCapacity) {
            table.rows[index] = row; // also puts right what may have been damaged
            return;
        }
        purgeStaleRows(table, nowMs());
        isFull = !table.append(row);
    });
    return isFull ? RegistryOutcome::Full : outcome;
}

RegistryOutcome listSubscribers(const ZnString& domain, std::vector<SubscriberInfo>& out) {
    out.clear();
    return withRegistry(domain, kLockWaitMs, [&](RegistryTable& table, auto&) {
        const std::uint64_t now = nowMs();
        purgeStaleRows(table, now);
        for (std::uint32_t index = 0; index < table.rowCount(); ++index) {
            const RegistryRow row = table.rows[index];
            const std::uint64_t ageMs = now >= row.lastSeenMs ? now - row.lastSeenMs : 0;
            if (textOf(row.domain) == domain.view()) // two domains may share a registry
                out.push_back(
                    {row.pid, row.refCount, ageMs, ZnString(textOf(row.object)), ZnString(textOf(row.signal))});
        }
    });
}

} // namespace zn::ipc::detail

namespace zn::ipc {

int isProcessGone(std::uint32_t pid) {
    return ZnProcess::isGone(pid);
}

detail::RegistryOutcome listSubscriberPids(const ZnString& domain, const ZnString& object, const ZnString& signal,
                                           std::vector<std::uint32_t>& out, int waitMs, detail::ProcessCheck check) {
    out.clear();
    return detail::withRegistry(domain, waitMs, [&](detail::RegistryTable& table, auto& mapping) {
        const std::uint64_t now = detail::nowMs();
        detail::purge(table, now, check == detail::ProcessCheck::Always || mapping.isProcessCheckDue(now));
        for (std::uint32_t index = 0; index < table.rowCount(); ++index) {
            const detail::RegistryRow row = table.rows[index];
            if (row.pid != 0 && detail::isFor(row, domain.view(), object.view(), signal.view()))
                out.push_back(row.pid);
        }
    });
}

detail::RegistryOutcome unregisterSubscription(const ZnString& domain, const ZnString& object, const ZnString& signal,
                                               std::uint32_t pid, const ZnString& subscriberObject) {
    return detail::withRegistry(domain, detail::kLockWaitMs, [&](detail::RegistryTable& table, auto&) {
        detail::purgeStaleRows(table, detail::nowMs());
        const std::uint32_t index = table.find(subscriptionId(domain, object, signal, pid, subscriberObject));
        if (index == detail::RegistryTable::kCapacity)
            return;
        if (table.rows[index].refCount >= 2)
            --table.rows[index].refCount;
        else
            table.removeAt(index);
    });
}

} // namespace zn::ipc
