#include "core/io/ZnHttpConnectionPool.h"

#include "core/io/ZnSslSessions_.h"
#include "core/io/ZnSslSocket.h"
#include "core/platform/ZnMonotonicClock.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace {

constexpr long long kNsPerMs = 1000000;
constexpr long long kNsPerUs = 1000;
/// Connections of the same age are closed in one go.
constexpr long long kTimerSlackNs = 100 * kNsPerMs;

/// Also from inside a slot of it.
void closeSocket(ZnTcpSocket* socket) {
    socket->disconnectAll();
    socket->close();
    socket->deleteLater();
}

} // namespace

bool ZnHttpConnectionPool::Key::operator<(const Key& other) const {
    return std::tie(port, useTls, host, partition, caFile) <
           std::tie(other.port, other.useTls, other.host, other.partition, other.caFile);
}

ZnHttpConnectionPool::ZnHttpConnectionPool(ZnObject* parent) : ZnObject(parent), timer_(nullptr) {
    timer_.setSingleShot(true);
    timer_.connect(&ZnTimer::timeout, this, [this] { sweep_(); });
}

ZnHttpConnectionPool::~ZnHttpConnectionPool() {
    stop();
}

// --- giving out

ZnTcpSocket* ZnHttpConnectionPool::take(const Key& key, ZnObject* owner) {
    const auto found = hosts_.find(key);
    if (found == hosts_.end())
        return nullptr;
    Host_& host = found->second;
    const long long nowNs = monotonicNowNs();
    if (key.useTls)
        checkTrust_(key, &host, nowNs);
    for (std::size_t index = host.idle.size(); index-- > 0;) {
        const auto at = host.idle.begin() + static_cast<std::ptrdiff_t>(index);
        if (at->socket->isServingEvents())
            continue; // a fiber inside its last event may be the very one that is to wait for the next
        if (!isUsable_(key, host, *at, nowNs)) {
            close_(&host, at);
            continue;
        }
        ZnTcpSocket* socket = at->socket;
        host.idle.erase(at);
        --idleCount_;
        socket->disconnectAll();
        socket->setParent(owner);
        return socket;
    }
    return nullptr;
}

bool ZnHttpConnectionPool::isUsable_(const Key& key, const Host_& host, const Idle_& entry, long long nowNs) {
    return entry.deadlineNs > nowNs && entry.socket->isQuiet() &&
           (!key.useTls || static_cast<const ZnSslSocket*>(entry.socket)->isTrustedBy_(*host.sessions));
}

void ZnHttpConnectionPool::checkTrust_(const Key& key, Host_* host, long long nowNs) {
    if (nowNs - host->trustCheckedNs < kTrustCheckMs * kNsPerMs)
        return;
    host->trustCheckedNs = nowNs;
    host->sessions->checkTrust(key.caFile);
}

std::shared_ptr<ZnSslSessions_> ZnHttpConnectionPool::sessions(const Key& key) {
    if (isStopped_)
        return nullptr;
    Host_& host = hosts_[key];
    if (!host.sessions) {
        host.sessions = std::make_shared<ZnSslSessions_>();
        armTimer_(monotonicNowNs() + kMaxIdleMs * kNsPerMs); // it must not stay when no connection comes of it
    }
    return host.sessions;
}

// --- taking back

void ZnHttpConnectionPool::put(const Key& key, ZnTcpSocket* socket, int idleMs) {
    if (isStopped_ || idleMs <= 0 || (key.useTls && !static_cast<ZnSslSocket*>(socket)->isTrustedBy_(*sessions(key))))
        return closeSocket(socket);
    Host_& host = hosts_[key];
    makeRoom_(&host);
    socket->setParent(this);
    watch_(socket, key.useTls);
    host.idle.push_back({socket, monotonicNowNs() + std::min(idleMs, maxIdleMs_) * kNsPerMs});
    ++idleCount_;
    armTimer_(host.idle.back().deadlineNs);
}

/// An end and an error are announced by readyRead, too, as there is nobody who reads; TLS closes without it.
void ZnHttpConnectionPool::watch_(ZnTcpSocket* socket, bool isTls) {
    const auto onSign = [this, socket] { onSign_(socket); };
    socket->connect(&ZnIODevice::readyRead, this, onSign);
    if (isTls)
        socket->connect(&ZnAbstractSocket::disconnected, this, onSign);
}

void ZnHttpConnectionPool::makeRoom_(Host_* host) {
    if (host->idle.size() >= maxIdlePerKey_)
        close_(host, host->idle.begin());
    if (idleCount_ < kMaxIdle)
        return;
    Host_* oldest = nullptr;
    for (auto& [key, other] : hosts_) {
        if (!other.idle.empty() &&
            (oldest == nullptr || other.idle.front().deadlineNs < oldest->idle.front().deadlineNs))
            oldest = &other;
    }
    if (oldest != nullptr)
        close_(oldest, oldest->idle.begin());
}

// --- the end of idle connections

/// Something has come, or the connection has ended. A read event without anything to read is none of this.
void ZnHttpConnectionPool::onSign_(ZnTcpSocket* socket) {
    if (socket->isQuiet())
        return;
    for (auto& [key, host] : hosts_) {
        const auto at = std::find_if(host.idle.begin(), host.idle.end(),
                                     [socket](const Idle_& entry) { return entry.socket == socket; });
        if (at == host.idle.end())
            continue;
        close_(&host, at);
        return;
    }
}

void ZnHttpConnectionPool::sweep_() {
    timer_.stop(); // one that has fired counts as running
    armedForNs_ = 0;
    const long long nowNs = monotonicNowNs();
    long long nextNs = 0;
    for (auto host = hosts_.begin(); host != hosts_.end();) {
        std::vector<Idle_>& idle = host->second.idle;
        for (auto at = idle.begin(); at != idle.end();) {
            if (at->deadlineNs <= nowNs + kTimerSlackNs) {
                at = close_(&host->second, at);
                continue;
            }
            nextNs = nextNs == 0 ? at->deadlineNs : std::min(nextNs, at->deadlineNs);
            ++at;
        }
        const std::shared_ptr<ZnSslSessions_>& sessions = host->second.sessions;
        const bool hasSessions = sessions && (sessions.use_count() > 1 || !sessions->isEmpty(nowNs));
        if (hasSessions && nextNs == 0)
            nextNs = nowNs + kMaxIdleMs * kNsPerMs;
        host = idle.empty() && !hasSessions ? hosts_.erase(host) : std::next(host);
    }
    if (nextNs != 0)
        armTimer_(nextNs);
}

void ZnHttpConnectionPool::armTimer_(long long deadlineNs) {
    if (armedForNs_ != 0 && armedForNs_ <= deadlineNs)
        return;
    armedForNs_ = deadlineNs;
    timer_.stop();
    timer_.startUs(std::max((deadlineNs - monotonicNowNs()) / kNsPerUs, 1LL));
}

std::vector<ZnHttpConnectionPool::Idle_>::iterator ZnHttpConnectionPool::close_(Host_* host,
                                                                                std::vector<Idle_>::iterator at) {
    ZnTcpSocket* const socket = at->socket;
    const auto next = host->idle.erase(at);
    --idleCount_;
    closeSocket(socket);
    return next;
}

void ZnHttpConnectionPool::closeIdle() {
    for (auto& [key, host] : hosts_) {
        while (!host.idle.empty())
            close_(&host, std::prev(host.idle.end()));
    }
    hosts_.clear();
    idleCount_ = 0;
}

void ZnHttpConnectionPool::stop() {
    isStopped_ = true;
    closeIdle();
    timer_.stop();
    armedForNs_ = 0;
}
