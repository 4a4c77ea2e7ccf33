#pragma once

#include "core/io/ZnTcpSocket.h"
#include "core/types/ZnByteArray.h"
#include "core/types/ZnList.h"
#include "core/types/ZnString.h"

#include <cstddef>
#include <memory>

class ZnSslEngine_;
class ZnSslServerContext;
class ZnSslSessions_;
enum class ZnSslOutcome_;

/// A TCP socket whose bytes run through TLS, as client or as server, once encryption has been started.
///
/// OpenSSL reads and writes the socket itself. After every event the pump picks what to try next (handshake, read or
/// write) from what OpenSSL asked for last; what it brings about is announced when it has ended, so that a receiver
/// may park, close or delete the socket.
/// `connected` means here: the handshake has finished. Every failure is logged once and then announced by
/// `sslErrors` and `errorOccurred`, and the socket closes. The peer's close alert is no failure.
/// Thread: the owning thread.
/// Invariant: with a phase other than Plain there is an engine, and the write buffer holds plain text.
class ZnSslSocket : public ZnTcpSocket {
public:
    ZN_OBJECT(ZnSslSocket, ZnTcpSocket)

    // Codes of errorOccurred beside those of ZnTcpSocket.
    static constexpr int kHandshakeFailed = static_cast<int>(0x80090308U); // also: TLS could not be set up
    static constexpr int kReadFailed = -7;
    static constexpr int kWriteFailed = -5;

    explicit ZnSslSocket(ZnObject* parent = nullptr);
    ~ZnSslSocket() override;

    /// As connectToHost, followed by the handshake. The certificate must carry the peer host name, which is `host`
    /// unless another one was set.
    bool connectToHostEncrypted(const ZnString& host, unsigned short port);
    void setPeerHostName(const ZnString& name) { peerHostName_ = name; }
    /// The authorities to trust instead of the discovered ones: a file in PEM form. Empty for discovery.
    void setCaFile(const ZnString& path) { caFile_ = path; }

    /// Begins the server's side on a connected socket. False, with the signals of a failure if it is one of TLS, when
    /// it cannot begin.
    bool startServerEncryption(const std::shared_ptr<const ZnSslServerContext>& context);

    /// Begins the client's side on a connected socket, with the peer host name, or else the one that was connected to.
    bool startClientEncryption_();

    /// Sessions that client handshakes take up and add to: those of one peer and name. Null for none.
    void setSessions_(std::shared_ptr<ZnSslSessions_> sessions) { sessions_ = std::move(sessions); }
    /// Whether the peer was verified with the trust that the sessions are of.
    bool isTrustedBy_(const ZnSslSessions_& sessions) const;

    void close() override;
    /// What has been decrypted, up to `maxBytes`; all of it for a value below 1.
    ZnString read(long long maxBytes) override;
    std::size_t readInto(char* buffer, std::size_t capacity) override;
    bool connectToHost(const ZnString& host, unsigned short port) override;
    /// A held connection takes an end of input without a close alert for one with it: what is due can still go out.
    void setHoldOnPeerClose(bool hold) override;
    bool isQuiet() const override;

    // Signals.
    void encrypted();                               // right after `connected`
    void sslErrors(const ZnList<ZnString>& errors); // one entry; ahead of `errorOccurred`

protected:
    bool onConnectReady_() override;
    bool onReadReady_() override;
    bool onWriteReady_() override;
    void onPeerClosed_() override;
    bool canFinishClose_() const override;
    void flushWrites_() override;
    bool canSendDirectly_() const override { return phase_ == Phase_::Plain; }

private:
    enum class Phase_ { Plain = 0, Handshaking = 1, Encrypted = 2, Failed = 3 };
    enum class Operation_ { None = 0, Handshake = 1, Read = 2, Write = 3 };
    enum class WantIo_ { None = 0, WantRead = 1, WantWrite = 2 };
    /// What a step of the pump has brought about.
    enum class News_ { None, Encrypted, DataCame, WritesDone, HandshakeFailed, ReadFailed, WriteFailed };

    void beginHandshake_();
    void schedulePump_(int delayMs = 0);
    void pump_();
    Operation_ nextOperation_() const;
    bool canRead_() const;
    bool canWrite_() const;
    bool hasWantedIo_() const;
    News_ run_(Operation_ operation);
    News_ doHandshake_();
    News_ doRead_();
    News_ doWrite_();
    News_ stopWriting_(ZnSslOutcome_ outcome);
    void repeatLater_(Operation_ operation, ZnSslOutcome_ outcome);
    void settle_();
    void announce_(News_ news);
    void deliver_();
    bool failSsl_(int code, const ZnString& text);
    void afterRead_();

    ZnString hostName_;     // of the last connectToHost
    ZnString peerHostName_; // to verify and to ask for; empty: hostName_
    ZnString caFile_;
    std::shared_ptr<ZnSslSessions_> sessions_;
    std::unique_ptr<ZnSslEngine_> engine_;
    Phase_ phase_ = Phase_::Plain;
    Operation_ pendingOp_ = Operation_::None; // must be repeated
    WantIo_ wantIo_ = WantIo_::None;          // what the socket must be ready for before that
    bool startOnConnect_ = false;             // the handshake begins when TCP has connected
    bool keepStartOnConnect_ = false;         // for one close(): the one that begins a connectToHost
    bool readReady_ = false;                  // there may be input, at the socket or inside OpenSSL
    bool writeReady_ = false;                 // there may be room at the socket
    bool readWantsRoom_ = false;              // a read wanted to write, and the socket has had no room since
    bool writeWantsRoom_ = false;             // a write
    bool pumpScheduled_ = false;
    unsigned connectionSerial_ = 0;    // tells a frame that was parked that the connection is another one
    bool insideDelivery_ = false;      // a receiver of readyRead runs
    bool insideWriteFinished_ = false; // a receiver of that one runs
    bool readHasFailed_ = false;       // to be announced when what came before has been read
    bool closeAnnounced_ = false;      // readyRead has told a holder of the peer's close
    ZnByteArray plainBuffer_;          // decrypted, not read yet; at most about kMaxPlainBytes
};
