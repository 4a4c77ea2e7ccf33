#pragma once

#include "core/io/ZnTcpSocket.h"
#include "core/io/http/ZnHttpRequest.h"

/// Who is at the other end of a session, and where it has come in. Asked for at the first request.
///
/// Thread: a value, that of its session.
class ZnHttpPeerInfo_ {
public:
    ZnHttpPeerInfo_(bool isTls, unsigned short localPort) noexcept : isTls_(isTls), localPort_(localPort) {}

    void describeIn(ZnHttpRequest& request, const ZnAbstractSocket* socket) {
        if (!isKnown_) {
            isKnown_ = true;
            if (const auto* tcpSocket = dynamic_cast<const ZnTcpSocket*>(socket)) {
                address_ = tcpSocket->peerAddress();
                port_ = tcpSocket->peerPort();
            }
        }
        request.isTls = isTls_;
        request.localPort = localPort_;
        request.peerAddress = address_;
        request.peerPort = port_;
    }

private:
    const bool isTls_;
    const unsigned short localPort_;
    bool isKnown_ = false;
    ZnString address_;
    unsigned short port_ = 0;
};
