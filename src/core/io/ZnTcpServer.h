#pragma once

#include "core/io/ZnTcpSocket.h"

#include <deque>
#include <vector>

/// Listens on an address, or on all addresses of a name; queues a socket object per accepted connection.
///
/// Thread: the owning thread. Owner of a queued socket: whoever takes it with nextPendingConnection; sockets
/// that nobody took are deleted with the server.
/// Failures are logged and reported by the result; a failed listen leaves the server closed.
class ZnTcpServer : public ZnObject {
public:
    ZN_OBJECT(ZnTcpServer, ZnObject)

    explicit ZnTcpServer(ZnObject* parent = nullptr);
    ~ZnTcpServer() override;

    /// Binds and listens; port 0 lets the system choose. An empty address or "::" serves both families, a name all its
    /// addresses that this machine has, with one port. Blocks the thread while a name is resolved.
    virtual bool listen(const ZnString& address, unsigned short port);
    /// Stops listening; queued sockets stay queued.
    void close();
    bool isListening() const noexcept { return !listeners_.empty(); }
    /// The oldest accepted socket, or null. The caller owns it.
    virtual ZnTcpSocket* nextPendingConnection();
    unsigned short localPort() const noexcept { return localPort_; }
    /// Why the last listen() failed, a ZnSocketError number; 0 when it did not.
    int listenError() const noexcept { return listenError_; }
    /// The first address of a name.
    const ZnString& localAddress() const noexcept { return localAddress_; }

    void newConnection(); // signal, once per accepted connection

protected:
    /// A new socket without parent for an accepted connection.
    virtual ZnTcpSocket* createSocket_();
    virtual bool emitConnectedOnAdopt_() const { return true; }
    /// Queues the socket and announces it. False: the caller closes and deletes it.
    virtual bool finalizeAcceptedSocket_(ZnTcpSocket* socket);

    std::deque<ZnTcpSocket*> pending_; // oldest first

private:
    struct Listener_ {
        std::shared_ptr<ZnSocketHandle> handle;
        unsigned long long waitId; // registration in the I/O dispatcher
    };

    // Both give 0 or a socket error number, and failedStep_ with it.
    int listenOnAll_(const ZnResolver::Result& addresses, bool isDualStack);
    int listenOn_(const ZnSocketAddress& address, bool isDualStack);
    unsigned long long watch_(const std::shared_ptr<ZnSocketHandle>& handle);
    void onCheckEvents_(const std::shared_ptr<ZnSocketHandle>& watched);
    void acceptDescriptor_(std::shared_ptr<ZnSocketHandle> handle);
    void acceptAgain_();
    void backOff_(int error);

    std::vector<Listener_> listeners_; // one per address; empty: not listening
    const char* failedStep_ = "";
    int listenError_ = 0;
    unsigned short localPort_ = 0;
    ZnString localAddress_;
    ZnString boundHost_;      // as asked for, without brackets
    bool backingOff_ = false; // one timer is on its way; until then no accept is tried
    long long lastAcceptReportNs_ = 0;
};
