#pragma once

#include "core/io/ZnSslLocalCredential.h"
#include "core/io/ZnSslSocket.h"
#include "core/io/ZnTcpServer.h"

#include <cstddef>
#include <memory>
#include <unordered_map>

class ZnTimer;

/// A listener whose connections are queued once their TLS handshake has finished.
///
/// Thread: the owning thread.
/// Owner of a socket in its handshake: this server. It ends by itself after the time-out of handshakes.
/// Credentials may be loaded anew at any time: connections that have begun keep the old ones.
class ZnSslServer : public ZnTcpServer {
public:
    ZN_OBJECT(ZnSslServer, ZnTcpServer)

    static constexpr std::size_t kMaxHandshakes = 2000;

    explicit ZnSslServer(ZnObject* parent = nullptr) : ZnTcpServer(parent) {}
    ~ZnSslServer() override;

    /// One default credential without a host name; none when one of the trimmed paths is empty.
    static ZnList<ZnSslLocalCredential> makeLocalCredentials_(const ZnString& certificatePath,
                                                              const ZnString& privateKeyPath);
    /// Takes the credentials that have both paths. False, with the reason in the log and the old ones in force, when
    /// there is none, or one cannot be loaded.
    bool reloadLocalCredentials(const ZnList<ZnSslLocalCredential>& credentials);
    /// Credentials must have been loaded.
    bool listen(const ZnString& address, unsigned short port) override;

    /// How long a handshake may take; below 1: for ever. For new connections.
    void setHandshakeTimeoutMs(int ms) noexcept { handshakeTimeoutMs_ = ms; }
    /// Connections above this many handshakes at a time are closed at once: each takes some 45 KiB.
    void setMaxHandshakes(std::size_t count) noexcept { maxHandshakes_ = count; }
    std::size_t handshakeCount() const noexcept { return handshakes_.size(); }
    /// Ends the handshakes that have not finished.
    void abortHandshakes();

protected:
    ZnTcpSocket* createSocket_() override;
    bool emitConnectedOnAdopt_() const override { return false; }
    bool finalizeAcceptedSocket_(ZnTcpSocket* socket) override;

private:
    void watchHandshake_(ZnSslSocket* socket);
    void onEncrypted_(ZnSslSocket* socket);
    void onHandshakeFailed_(ZnSslSocket* socket);
    bool takeHandshake_(ZnSslSocket* socket);
    void reportRefusal_();

    std::shared_ptr<const ZnSslServerContext> context_; // null: no credentials
    /// Sockets whose fate is open, with the timer that ends them (a child of the socket) or null.
    std::unordered_map<ZnSslSocket*, ZnTimer*> handshakes_;
    int handshakeTimeoutMs_ = 10000;
    std::size_t maxHandshakes_ = kMaxHandshakes;
    long long lastRefusalReportNs_ = 0;
};
