// How long it takes from a publication in one process to the callback in another one, beside three simpler ways to wake
// a process, and how many publications a second there can be.
//
// Usage: ipc_benchmark [ROUNDS [COUNT]]
// Each round sends COUNT pings forth and back by every way in turn, so that what else the machine does falls on all of
// them; a latency is half a round trip, and the figures are the medians of the rounds.

#include "core/ipc/Channel.h"
#include "core/ipc/Subscription.h"
#include "core/platform/ZnMonotonicClock.h"
#include "core/platform/ZnSharedFutex.h"
#include "core/platform/ZnWaitHandle.h"
#include "core/runtime/ZnCoreApplication.h"
#include "support/ForkedProcess.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <sys/mman.h>
#include <sys/socket.h>
#include <vector>

namespace {

using zn::ipc::Channel;
using zn::ipc::SignalValue;
using zn::ipc::Subscription;

constexpr int kPatienceMs = 60000;
int count = 5000; // pings of one way in one round

void require(bool condition, const char* what) {
    if (condition)
        return;
    std::fprintf(stderr, "ipc_benchmark: %s\n", what);
    std::exit(1);
}

/// A forked process that must end well.
class Partner {
public:
    explicit Partner(const std::function<void()>& body)
        : process_([&] {
              ::alarm(120);
              body();
              std::exit(0); // in order, so that nothing is left in shared memory
              return 1;
          }) {}
    ~Partner() { require(process_.exitCode() == 0, "the other process failed"); }

private:
    ForkedProcess process_;
};

/// The times of round trips.
class Trips {
public:
    void begin() { beganNs_ = monotonicNowNs(); }
    void end() { ns_.push_back(monotonicNowNs() - beganNs_); }
    bool isComplete() const { return static_cast<int>(ns_.size()) == count; }
    /// Half of the round trip that so many per cent do not exceed, in microseconds.
    double latencyUs(double percent) {
        std::sort(ns_.begin(), ns_.end());
        const auto at = static_cast<std::size_t>(static_cast<double>(ns_.size() - 1) * percent / 100.0);
        return static_cast<double>(ns_[at]) / 2000.0;
    }

private:
    long long beganNs_ = 0;
    std::vector<long long> ns_;
};

// --- the ways

Trips futexTrips() {
    void* memory = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    require(memory != MAP_FAILED, "no shared memory");
    auto* words = static_cast<std::uint32_t*>(memory);
    const auto raise = [words](int index) {
        std::atomic_ref<std::uint32_t>(words[index * 64]).fetch_add(1);
        ZnSharedFutex::wakeAll(&words[index * 64]);
    };
    const auto await = [words](int index, std::uint32_t seen) {
        while (std::atomic_ref<std::uint32_t>(words[index * 64]).load() == seen)
            ZnSharedFutex::wait(&words[index * 64], seen, 1000);
    };
    Trips trips;
    {
        const Partner partner([&] {
            for (int ping = 0; ping < count; ++ping) {
                await(0, static_cast<std::uint32_t>(ping));
                raise(1);
            }
        });
        for (int ping = 0; ping < count; ++ping) {
            trips.begin();
            raise(0);
            await(1, static_cast<std::uint32_t>(ping));
            trips.end();
        }
    }
    ::munmap(memory, 4096);
    return trips;
}

std::array<int, 2> socketPair(int flags) {
    std::array<int, 2> sockets{};
    require(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | flags, 0, sockets.data()) == 0, "no sockets");
    return sockets;
}

Trips datagramTrips() {
    const std::array<int, 2> sockets = socketPair(0);
    const auto pass = [](int socket, char* byte, bool isOut) {
        require((isOut ? ::send(socket, byte, 1, 0) : ::recv(socket, byte, 1, 0)) == 1, "datagram lost");
    };
    Trips trips;
    char byte = 1;
    {
        const Partner partner([&] {
            for (int ping = 0; ping < count; ++ping) {
                pass(sockets[1], &byte, false);
                pass(sockets[1], &byte, true);
            }
        });
        for (int ping = 0; ping < count; ++ping) {
            trips.begin();
            pass(sockets[0], &byte, true);
            pass(sockets[0], &byte, false);
            trips.end();
        }
    }
    ::close(sockets[0]);
    ::close(sockets[1]);
    return trips;
}

class LoopSocket : public ZnWaitHandle {
public:
    explicit LoopSocket(int descriptor) : ZnWaitHandle(ZnFileDescriptor(descriptor)) {}
    bool noteReady(std::uint32_t readiness) override { return (readiness & ZnReadiness::kInput) != 0; }
    void ping() {
        char byte = 1;
        require(::send(descriptor(), &byte, 1, 0) == 1, "datagram lost");
    }
    bool take() {
        char byte = 0;
        return ::recv(descriptor(), &byte, 1, 0) == 1;
    }
};

/// As datagramTrips, with an event loop at both ends: what waking a loop costs.
Trips loopTrips() {
    const std::array<int, 2> sockets = socketPair(SOCK_NONBLOCK);
    const auto runLoop = [](int descriptor, const std::function<void(LoopSocket&)>& onPing, bool pingsFirst,
                            const std::function<bool()>& isDone) {
        ZnCoreApplication application;
        const auto socket = std::make_shared<LoopSocket>(descriptor);
        application.ioDispatcher().watchHandle(socket, [&](unsigned) {
            while (socket->take())
                onPing(*socket);
        });
        if (pingsFirst)
            onPing(*socket);
        require(application.processUntil(isDone, kPatienceMs), "a ping of the loop was lost");
    };
    Trips trips;
    const Partner partner([&] {
        int seen = 0;
        runLoop(
            sockets[1], [&](LoopSocket& socket) { socket.ping(), ++seen; }, false, [&] { return seen == count; });
    });
    bool isUnderWay = false;
    runLoop(
        sockets[0],
        [&](LoopSocket& socket) {
            if (std::exchange(isUnderWay, true))
                trips.end();
            if (trips.isComplete())
                return;
            trips.begin();
            socket.ping();
        },
        true, [&] { return trips.isComplete(); });
    ::close(sockets[1]);
    return trips;
}

ZnString domain() {
    static const ZnString name = ZnString("benchmark-") + ZnString::number(::getpid());
    return name;
}

std::unique_ptr<Channel> openChannel(const char* signal) {
    ZnString error;
    auto channel = Channel::open(domain(), "benchmark", signal, &error);
    require(channel != nullptr, error.data());
    return channel;
}

std::unique_ptr<Subscription> subscribe(const char* signal, Subscription::Callback callback) {
    ZnString error;
    auto subscription = Subscription::subscribe(domain(), "benchmark", signal, "", std::move(callback), &error);
    require(subscription != nullptr, error.data());
    return subscription;
}

/// Runs `body` with a partner that has subscribed to "ping" and calls `onPing` with each, until `isDone`.
void withListener(const std::function<void(const SignalValue&)>& onPing, const std::function<bool()>& isDone,
                  const std::function<void()>& body) {
    const std::array<int, 2> sockets = socketPair(0);
    char byte = 1;
    {
        const Partner partner([&] {
            ZnCoreApplication application;
            const auto subscription = subscribe("ping", onPing);
            require(::send(sockets[1], &byte, 1, 0) == 1, "datagram lost");
            require(application.processUntil(isDone, kPatienceMs), "a signal was lost");
        });
        require(::recv(sockets[0], &byte, 1, 0) == 1, "the listener failed");
        body();
    }
    ::close(sockets[0]);
    ::close(sockets[1]);
}

Trips signalTrips() {
    domain(); // of this process, in both
    Trips trips;
    int answered = 0;
    std::unique_ptr<Channel> pong;
    withListener(
        [&](const SignalValue& value) {
            if (!pong)
                pong = openChannel("pong");
            pong->publish(value.first, 0);
            if (++answered == count)
                pong.reset();
        },
        [&] { return answered == count; },
        [&] {
            ZnCoreApplication application;
            const auto ping = openChannel("ping");
            const auto next = [&] {
                trips.begin();
                ping->publish(1, 0);
            };
            const auto subscription = subscribe("pong", [&](const SignalValue&) {
                trips.end();
                if (!trips.isComplete())
                    next();
            });
            next();
            require(application.processUntil([&] { return trips.isComplete(); }, kPatienceMs), "a signal was lost");
        });
    return trips;
}

// --- publications a second

double publishRate(int publications) {
    const auto ping = openChannel("ping");
    ping->publish(0, 0);
    const long long beganNs = monotonicNowNs();
    for (int publication = 1; publication <= publications; ++publication)
        ping->publish(static_cast<std::uint64_t>(publication), 0);
    return publications * 1e9 / static_cast<double>(monotonicNowNs() - beganNs);
}

double publishRateWithListener(int publications) {
    double rate = 0;
    bool isDone = false;
    withListener([&](const SignalValue& value) { isDone = value.first == static_cast<std::uint64_t>(publications); },
                 [&] { return isDone; }, [&] { rate = publishRate(publications); });
    return rate;
}

double median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

} // namespace

int main(int argumentCount, char** arguments) {
    const int rounds = argumentCount > 1 ? std::clamp(std::atoi(arguments[1]), 1, 100) : 9;
    count = argumentCount > 2 ? std::clamp(std::atoi(arguments[2]), 10, 100000) : count;
    struct Way {
        const char* name;
        Trips (*run)();
        std::vector<double> p50Us;
        std::vector<double> p99Us;
    };
    Way ways[] = {{"futex", &futexTrips, {}, {}},
                  {"datagram", &datagramTrips, {}, {}},
                  {"datagram, loop", &loopTrips, {}, {}},
                  {"signal", &signalTrips, {}, {}}};
    std::vector<double> alone;
    std::vector<double> heard;
    for (int round = 0; round < rounds; ++round) {
        for (Way& way : ways) {
            Trips trips = way.run();
            way.p50Us.push_back(trips.latencyUs(50));
            way.p99Us.push_back(trips.latencyUs(99));
        }
        alone.push_back(publishRate(count * 20));
        heard.push_back(publishRateWithListener(count));
    }
    std::printf("latency, microseconds      p50      p99\n");
    for (const Way& way : ways)
        std::printf("%-20s %9.2f %8.2f\n", way.name, median(way.p50Us), median(way.p99Us));
    const auto ratio = [&](const std::vector<double> Way::*values) {
        return median(ways[3].*values) / (1.5 * median(ways[0].*values) + median(ways[2].*values));
    };
    std::printf("signal : (1.5 futex + loop wake-up) %.2f at p50, %.2f at p99\n", ratio(&Way::p50Us),
                ratio(&Way::p99Us));
    std::printf("signal : datagram with loop %.2f at p50\n", median(ways[3].p50Us) / median(ways[2].p50Us));
    std::printf("publications a second: %.0f without listeners, %.0f with one\n", median(alone), median(heard));
    return 0;
}
