#include "core/ipc/SubscribersRegistryTable.h"
#include "core/platform/ZnProcess.h"
#include "core/types/ZnAssert.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <unistd.h>

namespace {

using namespace zn::ipc;
using namespace zn::ipc::detail;

void fill(RegistryTable& table, const std::uint8_t* data, std::size_t byteCount) {
    std::memcpy(static_cast<void*>(&table), data, std::min(byteCount, sizeof(table)));
}

/// On the heap, where a sanitizer sees a step outside the table.
void checkRows(const std::uint8_t* data, std::size_t byteCount) {
    const auto table = std::make_unique<RegistryTable>();
    fill(*table, data, byteCount);
    const std::uint32_t rowsBefore = table->rowCount(); // whatever the header says
    for (std::uint32_t index = 0; index < rowsBefore; ++index)
        ZN_ASSERT(table->find(table->rows[index].id) <= index);
    table->repair();
    ZN_ASSERT(table->count <= RegistryTable::kCapacity);
    purgeStaleRows(*table, 1000000);
    for (std::uint32_t index = 0; index < table->rowCount(); ++index)
        ZN_ASSERT(table->rows[index].pid != 0 && table->rows[index].refCount != 0 &&
                  table->rows[index].lastSeenMs != 0);
    table->removeAt(table->rowCount());
    const RegistryRow last = {~0ULL, 1, 1, 1, {}, {}, {}};
    while (table->append(last)) {
    }
    ZN_ASSERT(table->count == RegistryTable::kCapacity);
    while (table->count > 0)
        table->removeAt(0);
}

/// In shared memory, by way of what processes call.
void checkCalls(const std::uint8_t* data, std::size_t byteCount) {
    static const ZnString domain = ZnString("fuzz-") + ZnString::number(::getpid());
    const auto mapping = RegistryTable::open(domain);
    ZN_ASSERT(mapping != nullptr &&
              mapping->withTable(1000, [&](RegistryTable& table) { fill(table, data, byteCount); }));
    const SubscriptionKey key{domain, "object", "signal", ZnProcess::currentId(), "fuzz"};
    std::vector<SubscriberInfo> infos;
    ZN_ASSERT(listSubscribers(domain, infos) == RegistryOutcome::Done && infos.size() <= RegistryTable::kCapacity);
    for (const SubscriberInfo& info : infos)
        ZN_ASSERT(info.object.size() <= 64 && info.signal.size() <= 160);
    const RegistryOutcome outcome = registerSubscription(key);
    ZN_ASSERT(outcome == RegistryOutcome::Done || outcome == RegistryOutcome::Full);
    std::vector<std::uint32_t> pids;
    listSubscriberPids(domain, "object", "signal", pids);
    const auto own = static_cast<std::size_t>(std::count(pids.begin(), pids.end(), key.pid));
    ZN_ASSERT(outcome == RegistryOutcome::Full || own > 0);
    ZN_ASSERT(refreshSubscription(key, 1) != RegistryOutcome::Busy);
    unregisterSubscription(domain, "object", "signal", key.pid, "fuzz");
    listSubscriberPids(domain, "object", "signal", pids);
    ZN_ASSERT(outcome == RegistryOutcome::Full ||
              static_cast<std::size_t>(std::count(pids.begin(), pids.end(), key.pid)) == own - 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t byteCount) {
    checkRows(data, byteCount);
    checkCalls(data, byteCount);
    return 0;
}
