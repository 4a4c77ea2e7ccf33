#pragma once

#include "core/platform/ZnSharedMutex.h"
#include "core/types/ZnString.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace zn::ipc::detail {

/// One subscription, as it stands in shared memory. Texts end with a zero byte unless they fill their field.
struct RegistryRow {
    std::uint64_t id;
    std::uint64_t lastSeenMs; // by the monotonic clock
    std::uint32_t pid;
    std::uint32_t refCount;
    char domain[64];
    char object[64];
    char signal[160];
};

/// The subscribers of one domain, as they stand in shared memory, and the ways to them.
///
/// Every process of the user can write there: a value is copied before it is looked at, and checked before it is used.
/// A table that does not look like one is emptied.
/// Thread: the statics, any; a table belongs to who holds its mutex (Mapping::withTable).
template <std::uint32_t kRowCapacity>
struct SubscribersRegistryTable {
    class Mapping;

    static constexpr std::uint32_t kCapacity = kRowCapacity;
    /// A row that has not been refreshed for longer than this is nobody's.
    static constexpr std::uint64_t kMaxSilenceMs = 15000;

    char magic[4];
    std::uint32_t version;
    std::uint32_t count; // rows 0 to count - 1 are in use
    char timestampMagic[4];
    RegistryRow rows[kRowCapacity];

    /// The registry of a domain, made if there is none; the same for every call of this process, to the process's end.
    /// Null on failure, which is logged once for each domain.
    static std::shared_ptr<Mapping> open(const ZnString& domain);

    /// Empties a table that is none, and caps the count.
    void repair();
    /// Number of rows in use, whatever the table says.
    std::uint32_t rowCount() const;
    /// Index of the first row with this id, or kCapacity.
    std::uint32_t find(std::uint64_t id) const;
    /// False when the table is full.
    bool append(const RegistryRow& row);
    /// Puts the last row into the place. Nothing when there is no such row.
    void removeAt(std::uint32_t index);
};

using RegistryTable = SubscribersRegistryTable<512>;

/// This process's handle on one registry.
template <std::uint32_t kRowCapacity>
class SubscribersRegistryTable<kRowCapacity>::Mapping {
public:
    Mapping(std::unique_ptr<ZnSharedMemory> memory, std::unique_ptr<ZnSharedMutex> mutex)
        : memory_(std::move(memory)), mutex_(std::move(mutex)) {}

    /// Under the mutex: whether the processes of the rows are to be looked at again, which costs system calls for each.
    bool isProcessCheckDue(std::uint64_t nowMs);

    /// Calls `work` with the table, under its mutex. False, and nothing called, when the mutex could not be had within
    /// `waitMs` milliseconds.
    template <typename Work>
    bool withTable(int waitMs, Work work) {
        const ZnSharedMutexLocker locker(mutex_.get(), waitMs);
        if (!locker.isHeld())
            return false;
        auto& table = *static_cast<SubscribersRegistryTable*>(memory_->data());
        table.repair();
        if (locker.wasAbandoned())
            dropHalfMoved_(table);
        work(table);
        return true;
    }

private:
    static void dropHalfMoved_(SubscribersRegistryTable& table);

    const std::unique_ptr<ZnSharedMemory> memory_;
    const std::unique_ptr<ZnSharedMutex> mutex_;       // null: it could not be opened, and the registry works without
    std::atomic<std::uint64_t> lastProcessCheckMs_{0}; // atomic, because the mutex may be missing
};

/// Removes the rows of subscribers that have ended or have been silent for too long.
void purgeStaleRows(RegistryTable& table, std::uint64_t nowMs);

/// Whether the system is asked for the processes of the rows: always, or when that was a while ago. A publisher that
/// told a hundred processes a thousand times a second would ask for little else.
enum class ProcessCheck { Always, WhenDue };

/// The five texts and numbers that name a subscription.
struct SubscriptionKey {
    ZnString domain;
    ZnString object;
    ZnString signal;
    std::uint32_t pid;
    ZnString subscriberObject;
};

enum class RegistryOutcome { Done, Busy, Full, NoRegistry };

/// How long a loop waits for a mutex at most: its owner may be a process that somebody has stopped.
constexpr int kLockWaitMs = 5;

/// Adds a row, or counts one more on the row that is there.
RegistryOutcome registerSubscription(const SubscriptionKey& key, int waitMs = kLockWaitMs);
/// Says that the subscriber is there; a row that has been lost comes back with the count. Done also when it was there.
RegistryOutcome refreshSubscription(const SubscriptionKey& key, std::uint32_t refCount, int waitMs = kLockWaitMs);

/// For people.
struct SubscriberInfo {
    std::uint32_t pid;
    std::uint32_t refCount;
    std::uint64_t ageMs; // since it was last seen
    ZnString object;
    ZnString signal;
};
RegistryOutcome listSubscribers(const ZnString& domain, std::vector<SubscriberInfo>& out);

} // namespace zn::ipc::detail

namespace zn::ipc {

/// 1 ended, 0 alive, 2 unknown.
int isProcessGone(std::uint32_t pid);

/// The processes that have subscribed to the signal, one entry for each of their subscriptions.
detail::RegistryOutcome listSubscriberPids(const ZnString& domain, const ZnString& object, const ZnString& signal,
                                           std::vector<std::uint32_t>& out, int waitMs = detail::kLockWaitMs,
                                           detail::ProcessCheck check = detail::ProcessCheck::Always);

/// Counts one less on the subscription's row, and removes it with the last one.
detail::RegistryOutcome unregisterSubscription(const ZnString& domain, const ZnString& object, const ZnString& signal,
                                               std::uint32_t pid, const ZnString& subscriberObject);

} // namespace zn::ipc
