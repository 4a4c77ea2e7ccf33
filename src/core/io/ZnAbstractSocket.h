#pragma once

#include "core/io/ZnIODevice.h"

enum class SocketState : std::int32_t { Unconnected = 0, Connecting = 2, Connected = 3, Closing = 6 };

/// The connection vocabulary: a state, the signals, connectToHost.
///
/// Thread: the owning thread. A boolean result says only whether the call was accepted; the outcome arrives as a
/// signal. Every signal may delete the socket, so callers test a ZnPointer after a call that can emit.
class ZnAbstractSocket : public ZnIODevice {
public:
    ZN_OBJECT(ZnAbstractSocket, ZnIODevice)

    explicit ZnAbstractSocket(ZnObject* parent = nullptr) : ZnIODevice(parent) {}

    SocketState state() const noexcept { return state_; }
    bool isOpen() const override { return state_ == SocketState::Connected; }
    /// Drops what is still unsent and emits `disconnected` if there was a connection.
    void close() override = 0;
    ZnString read(long long maxBytes) override = 0;
    using ZnIODevice::write;
    bool write(ZnString bytes) override = 0;
    /// Begins a connection; parks the calling fiber while a name is resolved.
    virtual bool connectToHost(const ZnString& host, unsigned short port) = 0;
    /// Parks until connected, closed, failed, or `msecs` milliseconds have passed (negative: no limit).
    virtual bool waitForConnected(int msecs) = 0;
    virtual bool waitForBytesWritten(int msecs) = 0;
    /// Whether the peer's end of stream was seen.
    virtual bool isRemoteClosed() const { return false; }
    virtual bool hasPendingWrites() const { return false; }
    /// With `hold`, a peer that closes its sending side does not end the connection: its close is announced (readyRead,
    /// isRemoteClosed()) and what is written still goes out, for as long as the owner has something to say. Letting go
    /// closes the socket as soon as everything has been written, at once when that is so; it may emit. A peer that is
    /// gone altogether, as after a reset, ends a held connection all the same, with errorOccurred.
    /// Off at first; stays as it is over a close.
    virtual void setHoldOnPeerClose(bool /*hold*/) {}

    // Signals.
    void connected();
    void disconnected();
    void writeFinished();         // the last byte has left for the system; may come from inside write
    void errorOccurred(int code); // a socket error number (see ZnSocketError.h), or an internal negative code

protected:
    SocketState state_ = SocketState::Unconnected;
};
