#include "core/io/ZnSslSocket.h"

#include "core/io/RawTlsClient.h"
#include "core/io/TlsPeers.h"
#include "core/io/ZnSslServer.h"
#include "core/platform/ZnResolver.h"
#include "core/runtime/ZnEventLoop.h"
#include "core/runtime/ZnTimer.h"
#include "support/LogCapture.h"
#include "support/LoopFixture.h"

namespace {

std::string pattern(std::size_t byteCount, unsigned seed) {
    std::string text(byteCount, '\0');
    for (char& c : text)
        c = static_cast<char>((seed = seed * 1664525U + 1013904223U) >> 24);
    return text;
}

/// A server with the certificate "good", which takes over what it accepts, and a client that trusts its authority.
class ZnSslSocketTest : public LoopFixture {
protected:
    void SetUp() override {
        ticker_.start(2);
        client_.setCaFile(files_.path("ca.pem"));
        server_.connect(&ZnTcpServer::newConnection, &server_, [this] {
            accepted_ = server_.nextPendingConnection();
            accepted_->setParent(&server_);
        });
        ASSERT_TRUE(server_.reloadLocalCredentials({credential("good")}));
        ASSERT_TRUE(server_.listen("127.0.0.1", 0));
    }
    ZnSslLocalCredential credential(const std::string& name, const ZnString& hostName = {}, bool isDefault = false) {
        return {hostName, files_.path(name + ".pem"), files_.path(name + ".key"), isDefault};
    }
    /// Has the server send back what it reads.
    void echo() {
        server_.connect(&ZnTcpServer::newConnection, &server_, [this] {
            ZnTcpSocket* socket = accepted_;
            socket->connect(&ZnIODevice::readyRead, socket, [socket] { socket->write(socket->read(0)); });
        });
    }
    std::vector<std::string> clientArguments(const std::string& version, const std::string& serverName = {}) {
        std::vector<std::string> words = {"s_client", "-verify_return_error", version, "-CAfile"};
        words.insert(words.end(), {files_.path("ca.pem").str(), "-connect"});
        words.insert(words.end(), {"127.0.0.1:" + std::to_string(server_.localPort())});
        if (serverName.empty())
            words.emplace_back("-noservername");
        else
            words.insert(words.end(), {"-servername", serverName});
        return words;
    }
    bool acceptsRawClient(std::unique_ptr<RawTlsClient>& client) {
        accepted_ = nullptr;
        client = std::make_unique<RawTlsClient>(server_.localPort());
        return runUntil([&] { return accepted_ != nullptr; });
    }
    /// Writes down every signal of `socket`.
    static void record(ZnSslSocket& socket, std::string* signalTexts) {
        const auto add = [signalTexts](const char* text) { return [=] { *signalTexts += text; }; };
        socket.connect(&ZnAbstractSocket::connected, &socket, add("connected "));
        socket.connect(&ZnSslSocket::encrypted, &socket, add("encrypted "));
        socket.connect(&ZnSslSocket::sslErrors, &socket, [signalTexts](const ZnList<ZnString>& errors) {
            *signalTexts += errors.first().str().substr(14, 32);
        });
        socket.connect(&ZnAbstractSocket::errorOccurred, &socket,
                       [signalTexts](int code) { *signalTexts += " error " + std::to_string(code); });
        socket.connect(&ZnAbstractSocket::disconnected, &socket, add(" disconnected"));
    }
    OpensslProgram startServer(const std::string& certificate, const std::string& version) {
        return OpensslProgram({"s_server", "-4", "-accept", "0", version, "-cert",
                               files_.path(certificate + ".pem").str(), "-key",
                               files_.path(certificate + ".key").str()});
    }
    /// Has client_ connect to that server; false when it does not become open.
    bool connectTo(OpensslProgram& server, const ZnString& host) {
        const unsigned short port = server.port();
        client_.setPeerHostName(host);
        runOnFiber([&] { client_.connectToHostEncrypted("127.0.0.1", port); });
        EXPECT_FALSE(client_.write(ZnString("too early"))); // nothing is queued during the handshake
        EXPECT_TRUE(runUntil([&] { return client_.isOpen() || client_.state() == SocketState::Unconnected; }));
        return client_.isOpen();
    }
    bool connectPair() {
        accepted_ = nullptr;
        runOnFiber([&] { client_.connectToHostEncrypted("localhost", server_.localPort()); });
        return runUntil([&] { return client_.isOpen() && accepted_ != nullptr; });
    }
    /// Gathers what `socket` reads from now on.
    static void gather(ZnTcpSocket& socket, std::string* text) {
        socket.connect(&ZnIODevice::readyRead, &socket, [&socket, text] {
            for (ZnString piece = socket.read(0); !piece.isEmpty(); piece = socket.read(0))
                *text += piece.str();
        });
    }
    bool runUntilAcceptedIsClosed() {
        return runUntil([&] { return accepted_->state() == SocketState::Unconnected; });
    }

    ZnTimer ticker_; // conditions on other programs are no events of the loop
    LogCapture log_;
    const TlsFiles& files_ = TlsFiles::instance();
    std::string atServer_;
    std::string atClient_;
    ZnSslServer server_;
    ZnTcpSocket* accepted_ = nullptr;
    ZnSslSocket client_;
};

TEST_F(ZnSslSocketTest, ServesRealClients) {
    ASSERT_TRUE(server_.reloadLocalCredentials(
        {credential("good"), credential("second", "Second.TEST. "), credential("a", "a.test")}));
    echo();
    // The command is a key update, or a renegotiation, which a server refuses.
    constexpr const char* kRows[][4] = {{"-tls1_2", "", "subject=CN = good\n", "R\n"},
                                        {"-tls1_3", "a.test", "subject=CN = a\n", "k\n"},
                                        {"-tls1_2", "A.test", "subject=CN = a\n", ""},
                                        {"-tls1_3", "second.test.", "subject=CN = second\n", "K\n"},
                                        {"-tls1_3", "other.test", "subject=CN = good\n", ""}};
    for (const auto& [version, serverName, subject, command] : kRows) {
        SCOPED_TRACE(std::string(version) + " " + serverName);
        OpensslProgram client(clientArguments(version, serverName));
        client.type("hello\n");
        ASSERT_TRUE(runUntil([&] { return client.hasWritten("\nhello\n"); })) << client.output();
        EXPECT_TRUE(client.hasWritten("Verify return code: 0 (ok)") || client.hasWritten("Verification: OK"));
        EXPECT_TRUE(client.hasWritten(subject)) << client.output();
        const bool isRefused = *command == 'R'; // the client then gives up
        client.type(command);
        if (*command != '\0' && !isRefused) {
            ASSERT_TRUE(runUntil([&] { return client.hasWritten("KEYUPDATE\n"); })) << client.output();
            client.type("again\n");
            ASSERT_TRUE(runUntil([&] { return client.hasWritten("\nagain\n"); })) << client.output();
        }
        if (!isRefused)
            client.type("Q\n"); // with a close alert, which is no failure
        ASSERT_TRUE(runUntilAcceptedIsClosed());
        EXPECT_EQ(log_.take().size(), isRefused ? 1U : 0U);
    }
    EXPECT_EQ(server_.handshakeCount(), 0U);
}

TEST_F(ZnSslSocketTest, APeerThatOnlyRekeysIsClosedAndOneThatRekeysNowAndThenIsNot) {
    constexpr int kRows[][3] = {{30, 40, 40}, {33, 1, 0}, {4000, 1, 0}}; // of each round, rounds, bytes that arrive
    for (const auto& [keyUpdates, rounds, receivedBytes] : kRows) {
        SCOPED_TRACE(keyUpdates);
        std::unique_ptr<RawTlsClient> client;
        ASSERT_TRUE(acceptsRawClient(client));
        atServer_.clear();
        std::size_t largestTurn = 0;
        accepted_->connect(&ZnIODevice::readyRead, &server_, [&] {
            const ZnString bytes = accepted_->read(0);
            largestTurn = std::max(largestTurn, bytes.size());
            atServer_ += bytes.str();
        });
        for (int i = 0; i < rounds; ++i) { // they wait in the system's buffers: the loop does not run meanwhile
            for (int k = 0; k < keyUpdates; ++k) {
                SSL_key_update(client->ssl(), SSL_KEY_UPDATE_NOT_REQUESTED);
                ASSERT_EQ(SSL_do_handshake(client->ssl()), 1);
            }
            ASSERT_EQ(SSL_write(client->ssl(), "x", 1), 1);
        }
        const bool isClosed = receivedBytes == 0;
        const std::string received(static_cast<std::size_t>(receivedBytes), 'x');
        ASSERT_TRUE(runUntil([&] { return isClosed ? !accepted_->isOpen() : atServer_ == received; })) << atServer_;
        EXPECT_EQ(accepted_->isOpen(), !isClosed);
        EXPECT_EQ(atServer_, received);
        EXPECT_LE(largestTurn, 4U); // that was work enough for one turn
        EXPECT_EQ(log_.countOf("too many messages of the protocol without data"), isClosed ? 1 : 0);
        log_.take();
    }
}

TEST_F(ZnSslSocketTest, ServersWithoutAFittingCertificateAreRefused) {
    constexpr const char* kRows[][4] = {
        {"good", "-tls1_3", "other.test", "verify=62 (hostname mismatch) openssl="},
        {"a", "-tls1_2", "localhost", "verify=62 (hostname mismatch) openssl="},
        {"expired", "-tls1_3", "localhost", "verify=10 (certificate has expired) openssl="},
        {"selfsigned", "-tls1_3", "localhost", "verify=18 (self-signed certificate) openssl="},
        {"wrongca", "-tls1_2", "localhost", "verify=20 (unable to get local issuer certificate) openssl="}};
    std::string signalTexts;
    record(client_, &signalTexts);
    for (const auto& [certificate, version, host, logText] : kRows) {
        SCOPED_TRACE(std::string(certificate) + " " + version + " " + host);
        signalTexts.clear();
        log_.take();
        OpensslProgram peer = startServer(certificate, version);
        EXPECT_FALSE(connectTo(peer, host));
        EXPECT_EQ(signalTexts, "OpenSSL handshake failed: SSL er error -2146893048 disconnected");
        EXPECT_EQ(log_.countOf(logText), 1);
    }
}

TEST_F(ZnSslSocketTest, TalksWithRealServersThroughNewKeysToAnEndWithoutAlert) {
    std::string signalTexts;
    record(client_, &signalTexts);
    gather(client_, &atClient_);
    for (const bool isOld : {true, false}) {
        signalTexts.clear();
        atClient_.clear();
        log_.take();
        OpensslProgram peer = startServer("good", isOld ? "-tls1_2" : "-tls1_3");
        ASSERT_TRUE(connectTo(peer, isOld ? "localhost" : "127.0.0.1"));
        EXPECT_EQ(signalTexts, "connected encrypted ");
        peer.type("one\n");
        ASSERT_TRUE(runUntil([&] { return atClient_ == "one\n"; })) << atClient_;
        peer.type(isOld ? "r\n" : "K\n"); // the server asks for new keys
        settle(50);
        peer.type("two\n");
        ASSERT_TRUE(runUntil([&] { return atClient_ == "one\ntwo\n"; })) << atClient_;
        EXPECT_TRUE(client_.write(ZnString("to the end\n")));
        ASSERT_TRUE(runUntil([&] { return peer.hasWritten("to the end\n"); })) << peer.output();
        peer.type("Q\n"); // closes without an alert
        ASSERT_TRUE(runUntil([&] { return client_.state() == SocketState::Unconnected; }));
        EXPECT_EQ(signalTexts, "connected encrypted OpenSSL read failed: SSL error c error -7 disconnected");
        EXPECT_EQ(log_.countOf("unexpected eof while reading"), 1);
    }
}

TEST_F(ZnSslSocketTest, MovesMegabytesBothWaysAtOnce) {
    ASSERT_TRUE(connectPair());
    const std::string up = pattern(16 * 1024 * 1024, 1);
    const std::string down = pattern(16 * 1024 * 1024 + 1, 2);
    int finishedCount = 0;
    client_.connect(&ZnAbstractSocket::writeFinished, &client_, [&] { ++finishedCount; });
    EXPECT_TRUE(client_.write(ZnString(up.substr(1))));
    EXPECT_TRUE(accepted_->writeGathered(ZnString(down.substr(0, 100)), ZnByteArray(down.substr(100))));
    settle(200); // nobody reads
    EXPECT_LE(accepted_->bytesReceived(), ZnTcpSocket::kReadBudgetBytes + 16384);
    EXPECT_TRUE(client_.write(ZnString(up.substr(0, 1)))); // what OpenSSL has begun to send moves in memory
    gather(*accepted_, &atServer_);
    gather(client_, &atClient_);
    atServer_ = accepted_->read(100).str(); // and the input goes on
    atClient_ = client_.read(100).str();
    ASSERT_TRUE(runUntil([&] { return atServer_.size() == up.size() && atClient_.size() == down.size(); }, 60000));
    EXPECT_TRUE(atServer_ == up.substr(1) + up[0] && atClient_ == down);
    EXPECT_EQ(finishedCount, 1);
    EXPECT_EQ(client_.bytesSent(), up.size());
    EXPECT_EQ(client_.bytesReceived(), down.size());
}

TEST_F(ZnSslSocketTest, TheLastReadClosesAfterACloseAlert) {
    ASSERT_TRUE(connectPair());
    int closedCount = 0;
    client_.connect(&ZnAbstractSocket::disconnected, &client_, [&] { ++closedCount; });
    EXPECT_TRUE(accepted_->write(ZnString("last words")));
    accepted_->close();
    ASSERT_TRUE(runUntil([&] { return client_.isRemoteClosed(); }));
    settle();
    EXPECT_TRUE(client_.isOpen());
    EXPECT_EQ(client_.read(5), "last ");
    EXPECT_EQ(closedCount, 0);
    EXPECT_EQ(client_.read(0), "words");
    EXPECT_EQ(closedCount, 1);
    EXPECT_EQ(client_.state(), SocketState::Unconnected);
}

TEST_F(ZnSslSocketTest, BytesInFrontOfAnEndWithoutAlertAreDelivered) {
    server_.connect(&ZnTcpServer::newConnection, &server_, [&] { gather(*accepted_, &atServer_); });
    std::unique_ptr<RawTlsClient> client;
    ASSERT_TRUE(acceptsRawClient(client));
    EXPECT_EQ(SSL_write(client->ssl(), "bye\n", 4), 4); // the loop finds this and the end at once
    ::shutdown(client->descriptor(), SHUT_WR);
    EXPECT_TRUE(runUntilAcceptedIsClosed());
    EXPECT_EQ(atServer_, "bye\n");
    EXPECT_EQ(log_.countOf("OpenSSL read failed"), 1);
}

TEST_F(ZnSslSocketTest, AHeldConnectionAnswersAPeerThatHasClosedItsSideAndGoesWithAReset) {
    enum class End { Alert, AlertAndFin, FinAlone, Reset };
    for (const End end : {End::Alert, End::AlertAndFin, End::FinAlone, End::Reset}) {
        SCOPED_TRACE(static_cast<int>(end));
        std::unique_ptr<RawTlsClient> client;
        ASSERT_TRUE(acceptsRawClient(client));
        int announcedCount = 0;
        std::vector<int> errors;
        accepted_->connect(&ZnIODevice::readyRead, &server_, [&] { announcedCount += accepted_->isRemoteClosed(); });
        accepted_->connect(&ZnAbstractSocket::errorOccurred, &server_, [&](int code) { errors.push_back(code); });
        accepted_->setHoldOnPeerClose(true);
        EXPECT_EQ(end == End::FinAlone ? 0 : SSL_shutdown(client->ssl()), 0);
        if (end == End::AlertAndFin || end == End::FinAlone)
            ::shutdown(client->descriptor(), SHUT_WR);
        ASSERT_TRUE(runUntil([&] { return accepted_->isRemoteClosed(); }));
        settle();
        EXPECT_EQ(announcedCount, 1);
        if (end == End::Reset) {
            client->reset();
            EXPECT_TRUE(runUntilAcceptedIsClosed());
            EXPECT_EQ(errors, std::vector<int>{10054});
            continue;
        }
        ASSERT_TRUE(accepted_->write(ZnString("late answer")));
        settle();
        EXPECT_TRUE(accepted_->isOpen()); // the owner has not let go
        accepted_->setHoldOnPeerClose(false);
        EXPECT_EQ(accepted_->state(), SocketState::Unconnected);
        EXPECT_EQ(client->readAll(), "late answer");
        EXPECT_TRUE(errors.empty());
    }
    EXPECT_EQ(log_.countOf("OpenSSL"), 0);
}

TEST_F(ZnSslSocketTest, ReceiversMayWriteAndCloseAndTlsStays) {
    ASSERT_TRUE(connectPair());
    int writeCount = 0;
    client_.connect(&ZnAbstractSocket::writeFinished, &client_, [&] {
        if (++writeCount < 5000)
            client_.write(ZnString("x")); // not deeper and deeper on the stack
    });
    runOnFiber([&] { client_.write(ZnString("x")); });
    ASSERT_TRUE(runUntil([&] { return writeCount == 5000; }));
    int encryptedCount = 0;
    client_.connect(&ZnAbstractSocket::disconnected, &client_, [&] { client_.close(); });
    client_.connect(&ZnSslSocket::encrypted, &client_, [&] { ++encryptedCount; });
    ASSERT_TRUE(connectPair()); // closes the old connection, whose receiver closes again
    EXPECT_EQ(encryptedCount, 1);
}

TEST_F(ZnSslSocketTest, TheNameToVerifyIsThatOfThisConnectionAndAddressesAreNotAskedForByName) {
    ZnResolver::setLookupForTests(
        [](const ZnString&) -> ZnResolver::Result { return {ZnSocketAddress::fromNumeric("127.0.0.1", 0)}; });
    const auto connects = [&](const ZnString& host) {
        runOnFiber([&] { client_.connectToHostEncrypted(host, server_.localPort()); });
        EXPECT_TRUE(runUntil([&] { return client_.isOpen() || client_.state() == SocketState::Unconnected; }));
        return client_.isOpen();
    };
    // The server would have another certificate, from elsewhere, for a client that asks for the address by name.
    ASSERT_TRUE(server_.reloadLocalCredentials({credential("good"), credential("wrongca", "127.0.0.1")}));
    EXPECT_TRUE(connects("localhost"));
    EXPECT_TRUE(connects("127.0.0.1"));
    EXPECT_FALSE(connects("127.0.0.2")); // not in the certificate
    ASSERT_TRUE(server_.reloadLocalCredentials({credential("a")}));
    EXPECT_TRUE(connects("a.test"));
    client_.setPeerHostName("a.test");
    EXPECT_TRUE(connects("localhost"));
    EXPECT_TRUE(connects("127.0.0.1"));
    ZnResolver::setLookupForTests(nullptr);
}

TEST_F(ZnSslSocketTest, OthersMayWriteWhileAReceiverIsParked) {
    ASSERT_TRUE(connectPair());
    ZnEventLoop wait;
    bool hasEnded = false;
    accepted_->connect(&ZnIODevice::readyRead, accepted_, [&] {
        accepted_->write(accepted_->read(0));
        wait.exec();
        hasEnded = true;
    });
    gather(client_, &atClient_);
    client_.write(ZnString("one"));
    ASSERT_TRUE(runUntil([&] { return atClient_ == "one"; }));
    accepted_->write(ZnString("two"));
    ASSERT_TRUE(runUntil([&] { return atClient_ == "onetwo"; }));
    client_.close();
    settle();
    EXPECT_FALSE(hasEnded);
    wait.quit();
    EXPECT_TRUE(runUntil([&] { return hasEnded && accepted_->state() == SocketState::Unconnected; }));
}

TEST_F(ZnSslSocketTest, HandshakesThatDoNotFinishEnd) {
    server_.setHandshakeTimeoutMs(3000);
    std::vector<int> peers;
    const char* openings[] = {"", "\x16\x03\x01", "GET / HTTP/1.1\r\n\r\n"}; // silent, half a record, no TLS
    for (int i = 0; i < 1110; ++i) {
        peers.push_back(connectToLoopback(server_.localPort()));
        const std::string opening = openings[i % 3];
        EXPECT_EQ(::send(peers.back(), opening.data(), opening.size(), 0), static_cast<ssize_t>(opening.size()));
        if (i % 10 == 0)
            ::close(std::exchange(peers.back(), -1));
    }
    // A third says at once that it speaks no TLS, and a tenth of the others leaves.
    ASSERT_TRUE(runUntil([&] { return server_.handshakeCount() == 666; })) << server_.handshakeCount();
    EXPECT_TRUE(connectPair()); // others are served meanwhile
    EXPECT_TRUE(runUntil([&] { return server_.handshakeCount() == 0; }));
    EXPECT_EQ(log_.countOf("TLS handshake failed or socket closed before encryption"), 1110);
    EXPECT_TRUE(client_.isOpen());
    for (const int peer : peers)
        ::close(peer);
}

TEST_F(ZnSslSocketTest, OnlySoManyHandshakesAreUnderWayAndAllMayBeAborted) {
    server_.setMaxHandshakes(1);
    const int peers[] = {connectToLoopback(server_.localPort()), connectToLoopback(server_.localPort())};
    char byte = 0;
    EXPECT_TRUE(runUntil([&] { return ::recv(peers[1], &byte, 1, MSG_DONTWAIT) == 0; })); // above the limit
    EXPECT_EQ(server_.handshakeCount(), 1U);
    server_.abortHandshakes();
    EXPECT_EQ(server_.handshakeCount(), 0U);
    for (const int peer : peers)
        ::close(peer);
}

TEST_F(ZnSslSocketTest, CredentialsAreReloadedUnderConnections) {
    EXPECT_FALSE(ZnSslServer().listen("127.0.0.1", 0));
    EXPECT_EQ(log_.countOf("TLS credentials not configured"), 1);
    const ZnString certificate = files_.path("good.pem");
    const ZnString key = files_.path("good.key");
    const ZnString missing = files_.path("missing");
    ASSERT_TRUE(server_.reloadLocalCredentials(ZnSslServer::makeLocalCredentials_(" " + certificate + "\n", key)));
    echo();
    ASSERT_TRUE(connectPair());

    const std::pair<ZnSslLocalCredential, ZnString> failures[] = {
        {{"", " ", key, true}, "no certificate configured"},
        {{"", missing, key, true}, "Failed to load certificate: " + missing},
        {{"", certificate, files_.path("a.key"), true}, "Failed to load private key: "}};
    for (const auto& [unusable, errorText] : failures) {
        EXPECT_FALSE(server_.reloadLocalCredentials({unusable}));
        EXPECT_EQ(log_.countOf("TLS init failed: " + errorText.str()), 1) << errorText;
        log_.take();
    }
    EXPECT_TRUE(ZnSslServer::makeLocalCredentials_("a", " ").isEmpty());

    ASSERT_TRUE(server_.reloadLocalCredentials({credential("good"), credential("a", {}, true), credential("second")}));
    OpensslProgram client(clientArguments("-tls1_3"));
    EXPECT_TRUE(runUntil([&] { return client.hasWritten("subject=CN = a\n"); })) << client.output();
    gather(client_, &atClient_);
    client_.write(ZnString("old"));
    EXPECT_TRUE(runUntil([&] { return atClient_ == "old"; }));
}

} // namespace
