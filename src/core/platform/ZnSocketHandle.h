#pragma once

#include "core/platform/ZnWaitHandle.h"
#include "core/types/ZnString.h"

#include <cstddef>
#include <memory>

/// An address of the IPv4 or IPv6 family.
class ZnSocketAddress {
public:
    enum class Family { None, IPv4, IPv6 };

    ZnSocketAddress() noexcept = default;
    /// From the system's form; another family gives None.
    ZnSocketAddress(const void* systemAddress, std::size_t byteCount) noexcept;
    /// A numeric address ("127.0.0.1", "::1"); None when it is not one.
    static ZnSocketAddress fromNumeric(const ZnString& text, unsigned short port);

    Family family() const noexcept { return family_; }
    /// As text; "::ffff:a.b.c.d" is written as "a.b.c.d"; empty for None.
    ZnString text() const;
    unsigned short port() const noexcept;
    ZnSocketAddress withPort(unsigned short port) const noexcept;
    const void* systemAddress() const noexcept { return storage_; }
    std::size_t byteCount() const noexcept { return byteCount_; }

private:
    Family family_ = Family::None;
    std::size_t byteCount_ = 0;
    alignas(8) unsigned char storage_[32] = {};
};

/// What has happened on a socket since it was last asked; see ZnSocketHandle::takeEvents.
struct ZnNetworkEvents {
    static constexpr unsigned kRead = 1;
    static constexpr unsigned kWrite = 2;
    static constexpr unsigned kAccept = 8;
    static constexpr unsigned kConnect = 16;
    static constexpr unsigned kClose = 32;

    unsigned mask = 0;
    int connectError = 0; // a ZnSocketError number
};

/// A non-blocking stream socket and its pending network events.
///
/// The rules of re-enabling: after a read that did not reach the end of what is there, requestReadEvent() makes a read
/// event pending again; a write event comes after a send that would have blocked; close comes once.
/// Thread: the owner's. Error results are ZnSocketError numbers; nothing here blocks.
class ZnSocketHandle final : public ZnWaitHandle {
public:
    /// A new TCP socket of the address's family, TCP_NODELAY set. Null with `*error` on failure.
    static std::shared_ptr<ZnSocketHandle> open(ZnSocketAddress::Family family, int* error);

    /// 0: connected at once; kWouldBlock or kInProgress: a connect event will follow; else failed.
    int connect(const ZnSocketAddress& address);
    /// Binds and listens; 0 or an error, with `*step` naming the call that failed.
    int bindAndListen(const ZnSocketAddress& address, const char** step);
    /// Serves both families through one IPv6 socket, or IPv6 alone. False when the system refuses.
    bool setDualStack(bool dualStack);
    /// The next waiting connection, or null with `*error` (kWouldBlock: none is waiting).
    std::shared_ptr<ZnSocketHandle> accept(int* error);

    struct Transfer {
        std::size_t byteCount = 0; // 0 without an error is the end of stream
        int error = 0;             // 0, kWouldBlock or another error
    };
    Transfer receive(char* buffer, std::size_t capacity);
    /// Sends both parts, in order, as one.
    Transfer send(const char* first, std::size_t firstBytes, const char* second = nullptr, std::size_t secondBytes = 0);

    bool noteReady(std::uint32_t readiness) override;
    /// The events that are pending, which are then no longer so.
    ZnNetworkEvents takeEvents();
    /// Makes a read event pending again, for a reader that stopped before the end.
    void requestReadEvent() noexcept { pending_.mask |= ZnNetworkEvents::kRead; }
    /// A write event is to come when there is room again, as after a send that would have blocked.
    void expectWriteEvent() noexcept { wantsWriteEvent_ = true; }
    /// Whether a read may find something: false after one that came back short, until the next read event.
    bool maybeReadable() const noexcept { return maybeReadable_; }

    /// 0 while the connection stands, if only in one direction; else why it does not.
    int failure() const;

    /// Whether the connection stands and there is nothing to read, neither bytes nor an end; asked from the system.
    bool isQuiet() const;
    /// Whether the peer has closed its sending side, or the connection has ended; asked from the system.
    bool hasPeerFinished() const;
    /// How much of what was sent the peer's system has not acknowledged yet.
    std::size_t unacknowledgedBytes() const;

    /// The peer's address; asked from the system once.
    const ZnSocketAddress& peerAddress() const;
    ZnSocketAddress localAddress() const;

private:
    enum class Phase_ { Fresh, Connecting, Connected, Listening };

    ZnSocketHandle(ZnFileDescriptor descriptor, Phase_ phase) : ZnWaitHandle(std::move(descriptor)), phase_(phase) {}
    void noteConnectResult_(std::uint32_t readiness);

    Phase_ phase_;
    mutable ZnSocketAddress peerAddress_;
    ZnNetworkEvents pending_;
    bool maybeReadable_ = true;
    bool wantsWriteEvent_ = false; // a send would have blocked
    bool closeSeen_ = false;
};
