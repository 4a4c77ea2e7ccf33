#pragma once

#include "core/io/ZnAbstractSocket.h"
#include "core/platform/ZnResolver.h"
#include "core/platform/ZnSocketHandle.h"

#include <atomic>
#include <memory>

struct SocketState_;

/// A non-blocking stream socket with a write buffer and no read buffer.
///
/// Thread: the owning thread, where all its signals are emitted. Each close leaves it reusable.
/// Overridable hooks let a derived class put a layer such as TLS on top.
class ZnTcpSocket : public ZnAbstractSocket {
public:
    ZN_OBJECT(ZnTcpSocket, ZnAbstractSocket)

    /// One read from the system moves at most this much.
    static constexpr std::size_t kReadBytes = 1024;

    explicit ZnTcpSocket(ZnObject* parent = nullptr);
    ~ZnTcpSocket() override;

    void close() override;
    /// At most 1024 bytes, the default for a `maxBytes` outside 1 to 1024.
    ZnString read(long long maxBytes) override;
    std::size_t readInto(char* buffer, std::size_t capacity) override;
    using ZnAbstractSocket::write;
    bool write(ZnByteArray bytes) override;
    bool write(ZnString bytes) override;
    bool writeGathered(ZnString head, ZnByteArray body) override;
    bool connectToHost(const ZnString& host, unsigned short port) override;
    bool waitForConnected(int msecs) override;
    bool waitForBytesWritten(int msecs) override;
    bool isRemoteClosed() const override { return remoteClosed_; }
    bool hasPendingWrites() const override { return !writeBuffer_.isEmpty(); }

    /// Takes over an accepted handle; emits `connected` if asked to.
    void adoptDescriptor(std::shared_ptr<ZnSocketHandle> handle, bool emitConnected);

    /// The peer's and the own address as text ("::ffff:a.b.c.d" as "a.b.c.d") and port; empty and 0 without a
    /// connection. Asked from the system once per connection.
    ZnString peerAddress() const;
    unsigned short peerPort() const;
    ZnString localAddress() const;
    unsigned short localPort() const;

protected:
    virtual bool onConnectReady_();
    virtual bool onReadReady_();
    virtual bool onWriteReady_();
    virtual void onPeerClosed_();
    virtual bool canFinishClose_() const;
    virtual void flushWrites_();
    virtual void writePending_();
    /// One read from the system into `buffer`; 0 when nothing is there, at the end of stream and on errors.
    std::size_t receive_(char* buffer, std::size_t capacity);

    ZnByteArray writeBuffer_; // accepted by write, not yet with the system; has no bound
    bool remoteClosed_ = false;

private:
    bool registerWait_();
    bool onNetworkEvents_();
    void finishPeerClose_();
    bool resolveHost_(unsigned short port, ZnResolver::Result* result);
    int connectToFirst_(const ZnResolver::Result& addresses, bool* standsAlready);
    bool beginConnecting_(bool standsAlready);
    void sendParts_(const char* head, std::size_t headBytes, const char* body, std::size_t bodyBytes,
                    std::size_t* sentBytes);
    void finishWrite_();
    bool waitFor_(void (ZnAbstractSocket::*signal)(), const std::function<bool()>& isDone, int msecs);
    void refreshAddresses_();
    void countReceived_(std::size_t byteCount);
    void countSent_(std::size_t byteCount);

    std::shared_ptr<ZnSocketHandle> handle_; // null: no socket
    ZnString hostName_;                      // as last given to connectToHost
    unsigned long long waitId_ = 0;          // registration in the I/O dispatcher
    int resolveWaitId_ = 0;                  // fiber that is parked for a name, 0 for none
    unsigned connectGeneration_ = 0;         // tells a parked connectToHost that the socket was closed or reused
    std::size_t readBudgetBytes_ = 0;        // what one readiness event may still read
    std::atomic<unsigned long long> bytesReceived_{0};
    std::atomic<unsigned long long> bytesSent_{0};
    std::shared_ptr<SocketState_> trafficState_;
};
