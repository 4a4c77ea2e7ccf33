#include "core/ipc/SignalBlock.h"

#include "core/ipc/Names.h"
#include "core/platform/ZnSharedFutex.h"

#include <atomic>
#include <cstddef>
#include <cstring>

namespace zn::ipc::detail {

struct SignalBlock::Layout_ {
    char magic[4];
    std::uint32_t version;
    std::uint32_t byteCount;
    std::uint32_t reserved;
    std::uint64_t sequence;
    std::uint32_t payloadSize;
    unsigned char payload[4096];
    std::int32_t waiterCount;
};

namespace {

constexpr char kMagic[4] = {'1', 'G', 'I', 'S'};
constexpr std::uint32_t kVersion = 1;
constexpr std::size_t kPairBytes = 16;
constexpr std::size_t kDraftAt = kPairBytes; // in the payload: the values of the publication that is under way
constexpr std::size_t kDraftSequenceAt = 2 * kPairBytes; // and the number that it will have

std::atomic_ref<std::uint64_t> atomicOf(std::uint64_t& value) {
    return std::atomic_ref<std::uint64_t>(value);
}

/// What stands in front is in memory before what stands behind, also for who looks after this process has died.
void keepOrder() {
    std::atomic_thread_fence(std::memory_order_release);
}

} // namespace

std::shared_ptr<SignalBlock> SignalBlock::open(const ZnString& domain, const ZnString& object, const ZnString& signal,
                                               ZnString* errorText) {
    static_assert(sizeof(Layout_) == kByteCount && offsetof(Layout_, sequence) == 16 &&
                  offsetof(Layout_, payload) == 28 && offsetof(Layout_, waiterCount) == 4124);
    auto memory = ZnSharedMemory::open(signalBlockName(domain, object, signal), kByteCount,
                                       {&SignalBlock::takeOver_, &SignalBlock::isBlock_}, errorText);
    auto mutex = memory ? ZnSharedMutex::open(signalMutexName(domain, object, signal), errorText) : nullptr;
    if (!mutex)
        return nullptr;
    return std::shared_ptr<SignalBlock>(new SignalBlock(std::move(memory), std::move(mutex)));
}

void SignalBlock::takeOver_(void* data) {
    auto& layout = *static_cast<Layout_*>(data);
    if (!isBlock_(data)) {
        std::memset(data, 0, kByteCount);
        std::memcpy(layout.magic, kMagic, sizeof(kMagic));
        layout.version = kVersion;
        layout.byteCount = kByteCount;
    }
    layout.waiterCount = 0; // those who were counted have died in their sleep
}

bool SignalBlock::isBlock_(const void* data) {
    const auto& layout = *static_cast<const Layout_*>(data);
    return std::memcmp(layout.magic, kMagic, sizeof(kMagic)) == 0 && layout.version == kVersion &&
           layout.byteCount == kByteCount;
}

std::uint64_t SignalBlock::sequence() const {
    return atomicOf(layout_().sequence).load(std::memory_order_seq_cst); // see waitForChange
}

void SignalBlock::write_(const SignalValue& value) {
    Layout_& layout = layout_();
    const std::uint64_t pair[2] = {value.first, value.second};
    const std::uint64_t next = sequence() + 1;
    std::memcpy(layout.payload + kDraftAt, pair, kPairBytes);
    keepOrder();
    std::memcpy(layout.payload + kDraftSequenceAt, &next, sizeof(next));
    keepOrder();
    std::memcpy(layout.payload, pair, kPairBytes);
    layout.payloadSize = kPairBytes;
    atomicOf(layout.sequence).fetch_add(1, std::memory_order_seq_cst); // see waitForChange
}

void SignalBlock::finishPublication_() {
    Layout_& layout = layout_();
    std::uint64_t draftSequence = 0;
    std::memcpy(&draftSequence, layout.payload + kDraftSequenceAt, sizeof(draftSequence));
    if (draftSequence != sequence() + 1)
        return;
    std::uint64_t pair[2];
    std::memcpy(pair, layout.payload + kDraftAt, kPairBytes);
    write_({0, pair[0], pair[1]});
}

bool SignalBlock::read(int waitMs, SignalValue* value) {
    const ZnSharedMutexLocker locker(mutex_.get(), waitMs);
    if (!locker.isHeld())
        return false;
    if (locker.wasAbandoned())
        finishPublication_();
    // Whatever the block says, 16 bytes of it are read; a payload of another size holds no pair.
    std::uint64_t pair[2] = {};
    if (layout_().payloadSize == kPairBytes)
        std::memcpy(pair, layout_().payload, kPairBytes);
    *value = {sequence(), pair[0], pair[1]};
    return true;
}

void SignalBlock::wakeWaiters() {
    Layout_& layout = layout_();
    if (std::atomic_ref<std::int32_t>(layout.waiterCount).load(std::memory_order_seq_cst) != 0)
        ZnSharedFutex::wakeAll(reinterpret_cast<const std::uint32_t*>(&layout.sequence));
}

bool SignalBlock::waitForChange(std::uint64_t seen, int timeoutMs) {
    Layout_& layout = layout_();
    // The count goes up before the sequence is compared, and a publisher raises the sequence before it reads the count:
    // one of the two sees the other. That takes the sequentially consistent order of all four. The system compares the
    // low half of the sequence once more when it lays the thread to sleep.
    const std::atomic_ref<std::int32_t> waiterCount(layout.waiterCount);
    waiterCount.fetch_add(1, std::memory_order_seq_cst);
    if (sequence() == seen)
        ZnSharedFutex::wait(reinterpret_cast<const std::uint32_t*>(&layout.sequence), static_cast<std::uint32_t>(seen),
                            timeoutMs);
    waiterCount.fetch_sub(1, std::memory_order_seq_cst);
    return sequence() != seen;
}

} // namespace zn::ipc::detail
