#pragma once

#include "core/io/ZnTcpSocket.h"
#include "core/types/ZnList.h"

/// One listening socket; queues a socket object per accepted connection.
///
/// Thread: the owning thread. Owner of a queued socket: whoever takes it with nextPendingConnection; sockets
/// that nobody took are deleted with the server.
/// Failures are logged and reported by the result; a failed listen leaves the server closed.
class ZnTcpServer : public ZnObject {
public:
    ZN_OBJECT(ZnTcpServer, ZnObject)

    explicit ZnTcpServer(ZnObject* parent = nullptr);
    ~ZnTcpServer() override;

    /// Binds and listens; port 0 lets the system choose. An empty address or "::" serves both families.
    virtual bool listen(const ZnString& address, unsigned short port);
    /// Stops listening; queued sockets stay queued.
    void close();
    bool isListening() const noexcept { return handle_ != nullptr; }
    /// The oldest accepted socket, or null. The caller owns it.
    virtual ZnTcpSocket* nextPendingConnection();
    unsigned short localPort() const noexcept { return localPort_; }
    const ZnString& localAddress() const noexcept { return localAddress_; }

    void newConnection(); // signal, once per accepted connection

protected:
    /// A new socket without parent for an accepted connection.
    virtual ZnTcpSocket* createSocket_();
    virtual bool emitConnectedOnAdopt_() const { return true; }
    /// Queues the socket and announces it. False: the caller closes and deletes it.
    virtual bool finalizeAcceptedSocket_(ZnTcpSocket* socket);

    std::vector<ZnTcpSocket*> pending_; // oldest first

private:
    void onCheckEvents_();
    void acceptPass_();
    void acceptDescriptor_(ZnSocketHandle* handle);
    void backOff_();

    std::shared_ptr<ZnSocketHandle> handle_; // null: not listening
    unsigned long long waitId_ = 0;
    bool dualStack_ = false;
    unsigned short localPort_ = 0;
    ZnString localAddress_;
    ZnString boundHost_; // as asked for, without brackets
};
