#include "core/ipc/DispatchTable.h"

#include "core/ipc/Names.h"
#include "core/platform/ZnProcess.h"
#include "core/platform/ZnSharedMemory.h"
#include "core/types/ZnLogger.h"
#include "core/types/ZnMutex.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace zn::ipc {

namespace {

constexpr const char* kCategory = "zn.core.ipc.dispatchtable";
constexpr char kMagic[4] = {'1', 'P', 'S', 'D'};
constexpr std::uint32_t kVersion = 1;
static_assert(sizeof(DispatchTable) == 520);

void makeTable(void* data) {
    DispatchTable table = {};
    std::memcpy(table.magic, kMagic, sizeof(kMagic));
    table.version = kVersion;
    std::memcpy(data, &table, sizeof(table)); // whatever was there is not of this process
}

bool isTable(const void* data) {
    const auto& table = *static_cast<const DispatchTable*>(data);
    return std::memcmp(table.magic, kMagic, sizeof(kMagic)) == 0 && table.version == kVersion;
}

/// The process's mapping. Never destroyed; its memory is freed when the process ends in order.
struct Home {
    static Home& instance() {
        static Home& home = *new Home;
        return home;
    }

    DispatchTable* table() ZN_REQUIRES(mutex) {
        if (forkCount != ZnProcess::forkCount()) {
            forkCount = ZnProcess::forkCount();
            memory.reset();
        }
        if (!memory && !isClosed)
            open();
        return memory ? static_cast<DispatchTable*>(memory->data()) : nullptr;
    }
    void open() ZN_REQUIRES(mutex) {
        ZnSharedMemory::removeUnused(detail::dispatchTablePrefix(),
                                     detail::nameSuffix()); // of processes that were killed
        ZnString reason;
        memory =
            ZnSharedMemory::open(detail::dispatchTableName(), sizeof(DispatchTable), {&makeTable, &isTable}, &reason);
        if (!memory)
            ZN_LOG_ERROR(kCategory, "dispatchTable") << "Table of callbacks: " << reason;
    }
    void close() {
        const ZnMutexLocker locker(mutex);
        isClosed = true;
        memory.reset();
    }

    ZnMutex mutex; // nothing but the log is called while it is held
    std::unique_ptr<ZnSharedMemory> memory ZN_GUARDED_BY(mutex);
    unsigned forkCount ZN_GUARDED_BY(mutex) = ZnProcess::forkCount();
    bool isClosed ZN_GUARDED_BY(mutex) = false;

private:
    Home() {
        std::atexit([] { instance().close(); });
    }
};

bool exchangeSlot(DispatchCallback& slot, DispatchCallback from, DispatchCallback to) {
    return std::atomic_ref<DispatchCallback>(slot).compare_exchange_strong(from, to, std::memory_order_acq_rel);
}

} // namespace

DispatchTable* dispatchTable() {
    Home& home = Home::instance();
    const ZnMutexLocker locker(home.mutex);
    return home.table();
}

bool detail::addDispatchCallback(DispatchCallback callback) {
    Home& home = Home::instance();
    const ZnMutexLocker locker(home.mutex);
    DispatchTable* table = home.table();
    if (table == nullptr)
        return false;
    const auto anySlot = [&](DispatchCallback from) {
        return std::any_of(std::begin(table->slots), std::end(table->slots),
                           [&](DispatchCallback& slot) { return exchangeSlot(slot, from, callback); });
    };
    return anySlot(callback) || anySlot(nullptr);
}

void detail::removeDispatchCallback(DispatchCallback callback) {
    Home& home = Home::instance();
    const ZnMutexLocker locker(home.mutex);
    if (DispatchTable* table = home.table()) {
        for (DispatchCallback& slot : table->slots)
            exchangeSlot(slot, callback, nullptr);
    }
}

bool detail::runDispatchTable() {
    std::array<DispatchCallback, DispatchTable::kSlotCount> callbacks = {};
    {
        Home& home = Home::instance();
        const ZnMutexLocker locker(home.mutex);
        DispatchTable* table = home.table();
        if (table == nullptr)
            return false;
        for (std::size_t index = 0; index < callbacks.size(); ++index)
            callbacks[index] = std::atomic_ref<DispatchCallback>(table->slots[index]).load(std::memory_order_acquire);
    }
    for (const DispatchCallback callback : callbacks) {
        if (callback != nullptr)
            callback();
    }
    return true;
}

} // namespace zn::ipc
