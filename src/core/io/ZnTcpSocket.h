#pragma once

#include "core/io/ZnAbstractSocket.h"
#include "core/platform/ZnResolver.h"
#include "core/platform/ZnSocketHandle.h"

#include <functional>
#include <memory>
#include <optional>
#include <utility>

/// A non-blocking stream socket with a write buffer and no read buffer.
///
/// Thread: the owning thread, where all its signals are emitted. Each close leaves it reusable.
/// Overridable hooks let a derived class put a layer such as TLS on top.
/// A peer that has closed its side only still gets what was written for it: the socket closes when the write
/// buffer is empty and nobody holds it (setHoldOnPeerClose).
class ZnTcpSocket : public ZnAbstractSocket {
public:
    ZN_OBJECT(ZnTcpSocket, ZnAbstractSocket)

    /// One read() moves at most this much.
    static constexpr std::size_t kReadBytes = 1024;
    /// One readiness event delivers at most this much before others get their turn.
    static constexpr std::size_t kReadBudgetBytes = 256 * 1024;

    explicit ZnTcpSocket(ZnObject* parent = nullptr);
    ~ZnTcpSocket() override;

    void close() override;
    /// At most 1024 bytes, the default for a `maxBytes` outside 1 to 1024.
    ZnString read(long long maxBytes) override;
    std::size_t readInto(char* buffer, std::size_t capacity) override;
    bool write(ZnByteArray bytes) override;
    bool write(ZnString bytes) override;
    bool writeGathered(ZnString head, ZnByteArray body) override;
    bool connectToHost(const ZnString& host, unsigned short port) override;
    bool waitForConnected(int msecs) override;
    bool waitForBytesWritten(int msecs) override;
    bool isRemoteClosed() const override { return remoteClosed_; }
    bool hasPendingWrites() const override { return !writeBuffer_.isEmpty(); }
    void setHoldOnPeerClose(bool hold) override;

    /// Takes over an accepted handle; emits `connected` if asked to, or errorOccurred when the loop cannot watch it.
    /// When a receiver of an earlier connection's `disconnected` has connected the socket anew, the handle is closed.
    void adoptDescriptor(std::shared_ptr<ZnSocketHandle> handle, bool emitConnected);

    /// The peer's and the own address as text ("::ffff:a.b.c.d" as "a.b.c.d") and port; empty and 0 without a
    /// connection. Asked from the system once per connection.
    ZnString peerAddress() const;
    unsigned short peerPort() const;
    ZnString localAddress() const;
    unsigned short localPort() const;

    /// Totals over the object's life.
    unsigned long long bytesReceived() const noexcept { return bytesReceived_; }
    unsigned long long bytesSent() const noexcept { return bytesSent_; }
    /// How the peer stands, asked from the system: events may wait for a fiber that is parked inside one of them.
    enum class PeerState { Open, Finished, Gone }; // Finished: its sending side is closed, which may be all, or not
    PeerState peerState() const;
    /// Whether the connection stands, everything is written and there is nothing to read, neither bytes nor an end;
    /// asked from the system.
    virtual bool isQuiet() const;
    /// Whether a receiver of its signals runs, or is parked, because of an event: the next one comes only after it.
    bool isServingEvents() const noexcept { return insideEvents_; }
    /// Takes back what write has accepted and the system has not.
    ZnByteArray takeUnsent() { return std::exchange(writeBuffer_, ZnByteArray()); }
    /// How much of bytesSent() the peer has taken, which changes while it takes: the system's buffer may hold
    /// megabytes, and takes more only in large lumps.
    unsigned long long bytesTaken() const;

protected:
    virtual bool onConnectReady_();
    virtual bool onReadReady_();
    virtual bool onWriteReady_();
    virtual void onPeerClosed_();
    virtual bool canFinishClose_() const;
    virtual void flushWrites_();
    virtual void writePending_();
    /// Whether write may hand bytes to the system at once, past the write buffer.
    virtual bool canSendDirectly_() const { return true; }
    /// One read from the system into `buffer`; 0 when nothing is there, at the end of stream and on errors.
    std::size_t receive_(char* buffer, std::size_t capacity);

    /// Closes when the peer has closed, nothing is left to deliver, and nobody holds the connection.
    void finishPeerClose_();
    bool holdsOnPeerClose_() const noexcept { return holdOnPeerClose_; }

    bool canTransfer_() const { return handle_ != nullptr && state_ == SocketState::Connected; }
    // For a layer that reads and writes the descriptor itself.
    bool hasHandle_() const noexcept { return handle_ != nullptr; }
    /// Valid until the next close; -1 without a connection.
    int descriptor_() const noexcept { return handle_ ? handle_->descriptor() : -1; }
    /// Asks for a write event: a send by that layer would have blocked.
    void expectWriteEvent_();
    void countReceived_(std::size_t byteCount) noexcept { bytesReceived_ += byteCount; }
    void countSent_(std::size_t byteCount) noexcept { bytesSent_ += byteCount; }

    ZnByteArray writeBuffer_; // accepted by write, not yet with the system; has no bound
    bool remoteClosed_ = false;

private:
    class EventScope_;

    bool registerWait_();
    void onNetworkEvents_();
    bool handleEvents_(const ZnNetworkEvents& events, const EventScope_& scope);
    bool onConnectEvent_(int error, const EventScope_& scope);
    bool failWhenGone_(const EventScope_& scope);
    void requestAnotherRead_();
    /// The addresses of `host`. Nothing when the socket was closed, reused or deleted while the fiber was parked.
    std::optional<ZnResolver::Result> resolveHost_(const ZnString& host, unsigned short port);
    struct Attempt_ {
        std::shared_ptr<ZnSocketHandle> handle; // null: failed
        int error;                              // 0: connected already
    };
    Attempt_ tryNextAddress_(int lastError);
    bool follow_(Attempt_ attempt);
    void onAttemptFailed_(int error, const EventScope_& scope);
    /// Whether a connection has been begun, be it that its name is being resolved.
    bool isInUse_() const noexcept { return handle_ != nullptr || resolveWaitId_ != 0; }
    void dropHandle_();
    bool sendDirectly_(std::string_view first, std::string_view second);
    bool finishDirectSend_(const ZnSocketHandle::Transfer& transfer);
    bool waitFor_(void (ZnAbstractSocket::*signal)(), const std::function<bool(const ZnTcpSocket&)>& isDone, int msecs);

    std::shared_ptr<ZnSocketHandle> handle_; // null: no socket
    unsigned long long waitId_ = 0;          // registration in the I/O dispatcher
    ZnResolver::Result untriedAddresses_;    // of the name that is being connected to; the next one last
    int resolveWaitId_ = 0;                  // fiber that is parked for a name, 0 for none
    unsigned long long lookupId_ = 0;        // what it waits for
    unsigned connectGeneration_ = 0;         // tells a parked connectToHost that the socket was closed or reused
    bool insideEvents_ = false;              // a readiness event is being served (its fiber may be parked)
    bool stoppedBeforeEnd_ = false;          // the last read left more behind, as far as one can tell
    bool holdOnPeerClose_ = false;           // the owner ends a connection that the peer has closed
    std::size_t readBudgetBytes_ = kReadBudgetBytes;
    unsigned long long bytesReceived_ = 0;
    unsigned long long bytesSent_ = 0;
    mutable ZnString peerAddressText_; // asked for with every request of a connection
};
