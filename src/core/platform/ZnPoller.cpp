#include "core/platform/ZnPoller.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr long long kNsPerSecond = 1000000000LL;
constexpr long long kNsPerMs = 1000000LL;

timespec toTimespec(long long ns) {
    timespec time = {};
    time.tv_sec = static_cast<time_t>(ns / kNsPerSecond);
    time.tv_nsec = static_cast<long>(ns % kNsPerSecond);
    return time;
}

std::uint32_t readinessOf(std::uint32_t epollEvents) {
    std::uint32_t readiness = 0;
    if ((epollEvents & EPOLLIN) != 0)
        readiness |= ZnReadiness::kInput;
    if ((epollEvents & EPOLLOUT) != 0)
        readiness |= ZnReadiness::kOutput;
    if ((epollEvents & (EPOLLRDHUP | EPOLLHUP)) != 0)
        readiness |= ZnReadiness::kPeerClosed;
    if ((epollEvents & EPOLLERR) != 0)
        readiness |= ZnReadiness::kError;
    return readiness;
}

// Filled by the system before it is translated; one per thread is enough, as only the loop's thread waits.
thread_local std::array<epoll_event, ZnPoller::kMaxEvents> systemEvents;

} // namespace

std::unique_ptr<ZnPoller> ZnPoller::open() {
    std::unique_ptr<ZnPoller> poller(new ZnPoller);
    poller->epoll_ = ZnFileDescriptor(::epoll_create1(EPOLL_CLOEXEC));
    poller->wakeEvent_ = ZnFileDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    const bool isReady = poller->epoll_ && poller->wakeEvent_ && poller->watchSilently_(poller->wakeEvent_.get());
    return isReady ? std::move(poller) : nullptr;
}

/// Edge-triggered: an event ends a sleep once, and what the descriptor counts need never be read back.
bool ZnPoller::watchSilently_(int descriptor) {
    epoll_event event = {};
    event.events = EPOLLIN | EPOLLET;
    event.data.ptr = nullptr;
    return ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) == 0;
}

bool ZnPoller::add(int descriptor, void* context) {
    // What the context points at was made on this thread; the loop's exchange in wait() makes it visible there. (The
    // system orders the two as well, but says so nowhere.)
    state_.fetch_or(0, std::memory_order_release);
    epoll_event event = {};
    event.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
    event.data.ptr = context;
    return ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) == 0;
}

void ZnPoller::remove(int descriptor) {
    epoll_event unused = {};
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, descriptor, &unused);
}

std::size_t ZnPoller::wait(long long timeoutNs, Ready* events, std::size_t maxEvents) {
    maxEvents = std::min(maxEvents, kMaxEvents);
    if (timeoutNs != 0) {
        int expected = Awake_;
        // Fails when wake() came since the last sleep: look without sleeping.
        if (!state_.compare_exchange_strong(expected, Sleeping_, std::memory_order_acq_rel))
            timeoutNs = 0;
    }
    const int found = sleepInSystem_(timeoutNs, maxEvents);
    // Reads what the last wake() stored, so that the work it announced is visible to the caller.
    state_.exchange(Awake_, std::memory_order_acq_rel);
    std::size_t readyCount = 0;
    for (int i = 0; i < found; ++i) {
        const epoll_event& event = systemEvents[static_cast<std::size_t>(i)];
        if (event.data.ptr != nullptr)
            events[readyCount++] = {event.data.ptr, readinessOf(event.events)};
    }
    return readyCount;
}

int ZnPoller::sleepInSystem_(long long timeoutNs, std::size_t maxEvents) {
    const int limit = static_cast<int>(std::max<std::size_t>(maxEvents, 1));
    if (timeoutNs <= 0)
        return ::epoll_wait(epoll_.get(), systemEvents.data(), limit, timeoutNs < 0 ? -1 : 0);
    if (!timer_) {
        const timespec timeout = toTimespec(timeoutNs);
        const int found = ::epoll_pwait2(epoll_.get(), systemEvents.data(), limit, &timeout, nullptr);
        if (found >= 0 || errno == EINTR)
            return found;
        // Missing in the kernel, or refused by a sandbox that does not know it.
        timer_ = ZnFileDescriptor(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
        if (!timer_ || !watchSilently_(timer_.get())) {
            timer_.reset(); // no descriptor left: tried again the next time
            const long long timeoutMs = std::min<long long>((timeoutNs - 1) / kNsPerMs + 1, INT_MAX);
            return ::epoll_wait(epoll_.get(), systemEvents.data(), limit, static_cast<int>(timeoutMs));
        }
    }
    itimerspec setting = {};
    setting.it_value = toTimespec(timeoutNs);
    ::timerfd_settime(timer_.get(), 0, &setting, nullptr);
    return ::epoll_wait(epoll_.get(), systemEvents.data(), limit, -1);
}

void ZnPoller::wake() noexcept {
    // The exchange orders the caller's work before the sleeper's next look at its queues.
    if (state_.exchange(Woken_, std::memory_order_acq_rel) == Sleeping_) {
        const std::uint64_t one = 1;
        const int savedErrno = errno;
        [[maybe_unused]] const ssize_t written = ::write(wakeEvent_.get(), &one, sizeof(one));
        errno = savedErrno;
    }
}
