#include "core/platform/ZnFiberContext.h"

#include "core/types/ZnAssert.h"
#include "core/types/ZnMutex.h"

#include <boost/context/detail/fcontext.hpp>
#include <cerrno>
#include <cxxabi.h>
#include <sys/mman.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#define ZN_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZN_ADDRESS_SANITIZER 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define ZN_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZN_THREAD_SANITIZER 1
#endif
#endif

#if defined(ZN_ADDRESS_SANITIZER)
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#endif
#if defined(ZN_THREAD_SANITIZER)
#include <sanitizer/tsan_interface.h>
#endif
#if __has_include(<valgrind/valgrind.h>)
#include <valgrind/valgrind.h>
#define ZN_VALGRIND 1
#endif

#if !defined(MADV_GUARD_INSTALL)
#define MADV_GUARD_INSTALL 102 // kernel 6.13; older kernels answer EINVAL
#endif

namespace {

std::size_t pageBytes() {
    static const std::size_t bytes = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    return bytes;
}

// The part of the C++ run time's per-thread state that belongs to a stack: which exceptions are being handled.
// Without saving it, a fiber that parks inside a catch block would rethrow another fiber's exception.
struct ExceptionState_ {
    void* caughtExceptions;
    unsigned int uncaughtExceptions;
};

ExceptionState_& exceptionState() {
    return *reinterpret_cast<ExceptionState_*>(abi::__cxa_get_globals());
}

} // namespace

ZnFiberStacks::ZnFiberStacks(std::size_t stackCount, std::size_t stackBytes) {
    const std::size_t page = pageBytes();
    stackBytes_ = (stackBytes + page - 1) / page * page;
    mappedBytes_ = stackCount * (stackBytes_ + page);
    void* mapping = ::mmap(nullptr, mappedBytes_, PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
    if (mapping == MAP_FAILED)
        return;
    // A huge page would make one touched stack cost sixteen.
    ::madvise(mapping, mappedBytes_, MADV_NOHUGEPAGE);
    base_ = static_cast<char*>(mapping);
}

ZnFiberStacks::~ZnFiberStacks() {
    if (base_ == nullptr)
        return;
#if defined(ZN_ADDRESS_SANITIZER)
    __asan_unpoison_memory_region(base_, mappedBytes_); // what a dropped fiber left poisoned
#endif
    ::munmap(base_, mappedBytes_);
}

void* ZnFiberStacks::prepare(std::size_t stackIndex) {
    const std::size_t page = pageBytes();
    char* guard = base_ + stackIndex * (stackBytes_ + page);
    if (::madvise(guard, page, MADV_GUARD_INSTALL) != 0 && ::mprotect(guard, page, PROT_NONE) != 0)
        return nullptr;
    return guard + page;
}

struct ZnFiberContext::Switch_ {
    using Transfer = boost::context::detail::transfer_t;

    /// The first thing that runs on a context's side of a switch.
    static void arrive(Transfer transfer, ZnFiberContext& arrived) {
        auto* left = static_cast<ZnFiberContext*>(transfer.data);
        left->saved_ = transfer.fctx;
        arrived.saved_ = nullptr;
#if defined(ZN_ADDRESS_SANITIZER)
        const void* leftBottom = nullptr;
        std::size_t leftBytes = 0;
        __sanitizer_finish_switch_fiber(arrived.sanitizerState_, &leftBottom, &leftBytes);
        if (left->stackBottom_ == nullptr) { // the thread's own stack becomes known at its first switch
            left->stackBottom_ = leftBottom;
            left->stackBytes_ = leftBytes;
        }
#endif
    }

    static void enter(Transfer transfer) {
        ZnFiberContext& self = *entering; // `transfer` tells only who was left
        arrive(transfer, self);
        exceptionState() = {};
        self.entry_(self.argument_);
        constexpr bool kEntryReturned = true;
        ZN_ASSERT(!kEntryReturned);
    }

    static thread_local ZnFiberContext* entering; // the target of the switch under way
};

thread_local ZnFiberContext* ZnFiberContext::Switch_::entering = nullptr;

ZnFiberContext::ZnFiberContext() {
#if defined(ZN_THREAD_SANITIZER)
    sanitizerState_ = __tsan_get_current_fiber();
#endif
}

ZnFiberContext::ZnFiberContext(void* stackBottom, std::size_t stackBytes, Entry entry, void* argument)
    : entry_(entry), argument_(argument), stackBottom_(stackBottom), stackBytes_(stackBytes) {
    char* top = static_cast<char*>(stackBottom) + stackBytes;
#if defined(ZN_ADDRESS_SANITIZER)
    __asan_unpoison_memory_region(stackBottom, stackBytes);
#endif
#if defined(ZN_THREAD_SANITIZER)
    sanitizerState_ = __tsan_create_fiber(0);
#endif
#if defined(ZN_VALGRIND)
    valgrindStackId_ = VALGRIND_STACK_REGISTER(stackBottom, top);
#endif
    saved_ = boost::context::detail::make_fcontext(top, stackBytes, &Switch_::enter);
}

ZnFiberContext::~ZnFiberContext() {
    if (entry_ == nullptr)
        return;
#if defined(ZN_THREAD_SANITIZER)
    __tsan_destroy_fiber(sanitizerState_);
#endif
#if defined(ZN_VALGRIND)
    VALGRIND_STACK_DEREGISTER(valgrindStackId_);
#endif
}

void ZnFiberContext::switchTo(ZnFiberContext& target) {
    ZN_ASSERT(saved_ == nullptr && target.saved_ != nullptr && &target != this);
    ZN_DEBUG_ASSERT(zn::detail::heldLockCount() == 0);
    const int savedErrno = errno;
    const ExceptionState_ savedExceptions = exceptionState();
#if defined(ZN_ADDRESS_SANITIZER)
    __sanitizer_start_switch_fiber(&sanitizerState_, target.stackBottom_, target.stackBytes_);
#endif
#if defined(ZN_THREAD_SANITIZER)
    __tsan_switch_to_fiber(target.sanitizerState_, 0);
#endif
    Switch_::entering = &target;
    const Switch_::Transfer transfer = boost::context::detail::jump_fcontext(target.saved_, this);
    Switch_::arrive(transfer, *this);
    exceptionState() = savedExceptions;
    errno = savedErrno;
}
