#include "core/io/ZnTcpServer.h"
#include "core/io/ZnTcpSocket.h"
#include "core/platform/ZnResolver.h"
#include "core/platform/ZnSocketError.h"
#include "core/runtime/ZnEventLoop.h"
#include "support/LogCapture.h"
#include "support/LoopFixture.h"
#include "support/Loopback.h"

#include <memory>
#include <thread>
#include <unistd.h>

namespace {

/// A listening server and both ends of one connection.
class ZnTcpSocketTest : public LoopFixture {
protected:
    void TearDown() override { ZnResolver::setLookupForTests(nullptr); }

    void connectPair() {
        ASSERT_TRUE(server_.listen("127.0.0.1", 0));
        ASSERT_TRUE(client_->connectToHost("127.0.0.1", server_.localPort()));
        ASSERT_TRUE(runUntil([&] {
            if (!peer_)
                peer_.reset(server_.nextPendingConnection());
            return peer_ != nullptr && client_->isOpen();
        }));
    }
    /// Collects all that `socket` receives into `into`.
    static void collect(ZnTcpSocket& socket, ZnString& into) {
        socket.connect(&ZnIODevice::readyRead, [&socket, &into] {
            for (ZnString bytes = socket.read(0); !bytes.isEmpty(); bytes = socket.read(0))
                into += bytes;
        });
    }

    ZnTcpServer server_;
    std::unique_ptr<ZnTcpSocket> client_ = std::make_unique<ZnTcpSocket>();
    std::unique_ptr<ZnTcpSocket> peer_;
};

ZnString patternOf(std::size_t byteCount) {
    std::string text(byteCount, '\0');
    for (std::size_t i = 0; i < byteCount; ++i)
        text[i] = static_cast<char>((i * 31 + i / 251) & 0xff);
    return ZnString(std::move(text));
}

TEST_F(ZnTcpSocketTest, BytesCrossBothWaysAndAddressesAgree) {
    connectPair();
    EXPECT_EQ(peer_->peerAddress(), "127.0.0.1");
    EXPECT_EQ(peer_->peerPort(), client_->localPort());
    EXPECT_EQ(peer_->localPort(), server_.localPort());
    ZnString received;
    collect(*peer_, received);
    EXPECT_TRUE(client_->write(ZnString()));
    EXPECT_TRUE(client_->writeGathered("head:", ZnByteArray(ZnString("body"))));
    ASSERT_TRUE(runUntil([&] { return received == "head:body"; }));
    EXPECT_EQ(client_->bytesSent(), 9U);
}

TEST_F(ZnTcpSocketTest, ManyMegabytesCrossInOrderAndInTurns) {
    connectPair();
    const ZnString sent = patternOf(32 * 1024 * 1024);
    ZnString received;
    std::size_t largestTurn = 0;
    peer_->connect(&ZnIODevice::readyRead, [&] {
        const std::size_t before = received.size();
        for (ZnString bytes = peer_->read(0); !bytes.isEmpty(); bytes = peer_->read(0))
            received += bytes;
        largestTurn = std::max(largestTurn, received.size() - before);
    });
    int finished = 0;
    client_->connect(&ZnAbstractSocket::writeFinished, [&] { ++finished; });
    EXPECT_TRUE(client_->writeGathered("x", ZnByteArray(sent)));
    ASSERT_TRUE(runUntil([&] { return received.size() == sent.size() + 1; }, 60000));
    EXPECT_TRUE(received == "x" + sent);
    EXPECT_EQ(finished, 1);
    EXPECT_LE(largestTurn, ZnTcpSocket::kReadBudgetBytes + ZnTcpSocket::kReadBytes);
}

TEST_F(ZnTcpSocketTest, AReaderThatStopsEarlyGetsAnotherReadEvent) {
    connectPair();
    ZnString received;
    int events = 0;
    peer_->connect(&ZnIODevice::readyRead, [&] {
        ++events;
        received += peer_->read(100); // one short look per event
    });
    client_->write(patternOf(1000));
    ASSERT_TRUE(runUntil([&] { return received.size() == 1000; }));
    EXPECT_GE(events, 10);
}

TEST_F(ZnTcpSocketTest, WhatWasWrittenReachesAPeerThatClosesLater) {
    connectPair();
    ZnString received;
    collect(*client_, received);
    bool clientClosed = false;
    client_->connect(&ZnAbstractSocket::disconnected, [&] {
        EXPECT_EQ(client_->state(), SocketState::Connected); // receivers still see the old state
        clientClosed = true;
    });
    peer_->write(ZnString("bye"));
    peer_->close();
    EXPECT_EQ(peer_->state(), SocketState::Unconnected);
    ASSERT_TRUE(runUntil([&] { return clientClosed; }));
    EXPECT_EQ(received, "bye");
    EXPECT_EQ(client_->state(), SocketState::Unconnected);
    EXPECT_FALSE(client_->write(ZnString("late")));
}

TEST_F(ZnTcpSocketTest, AnswersReachAPeerThatHasClosedItsSideOnly) {
    ASSERT_TRUE(server_.listen("127.0.0.1", 0));
    std::string answer;
    std::thread halfCloser([&answer, port = server_.localPort()] {
        const int descriptor = connectToLoopback(port);
        EXPECT_EQ(::send(descriptor, "ask", 3, 0), 3);
        ::shutdown(descriptor, SHUT_WR);
        char buffer[4096];
        for (ssize_t got = 0; (got = ::recv(descriptor, buffer, sizeof(buffer), 0)) > 0;)
            answer.append(buffer, static_cast<std::size_t>(got));
        ::close(descriptor);
    });
    const ZnString large = patternOf(32 * 1024 * 1024); // more than the system buffers
    bool closed = false;
    server_.connect(&ZnTcpServer::newConnection, [&] {
        peer_.reset(server_.nextPendingConnection());
        peer_->connect(&ZnAbstractSocket::disconnected, [&] { closed = true; });
        peer_->connect(&ZnIODevice::readyRead, [&] {
            if (peer_->read(0) == "ask")
                peer_->write(large);
            peer_->read(0); // finds the end
        });
    });
    EXPECT_TRUE(runUntil([&] { return closed; }, 30000));
    halfCloser.join();
    EXPECT_TRUE(answer == large.str());
}

TEST_F(ZnTcpSocketTest, RefusedConnectionsAndUnknownNamesAreErrors) {
    int code = 0;
    client_->connect(&ZnAbstractSocket::errorOccurred, [&](int error) { code = error; });
    ASSERT_TRUE(server_.listen("127.0.0.1", 0));
    const unsigned short port = server_.localPort();
    server_.close();
    client_->connectToHost("127.0.0.1", port);
    ASSERT_TRUE(runUntil([&] { return code != 0; }));
    EXPECT_EQ(code, ZnSocketError::kConnectionRefused);
    EXPECT_EQ(client_->state(), SocketState::Unconnected);
    code = 0;
    ZnResolver::setLookupForTests([](const ZnString&) { return ZnResolver::Result{}; });
    runOnFiber([&] { EXPECT_FALSE(client_->connectToHost("unknown.test", 80)); });
    EXPECT_EQ(code, ZnSocketError::kHostNotFound);
}

TEST_F(ZnTcpSocketTest, NamesAreResolvedWhileTheLoopGoesOnAndACloseEndsTheWait) {
    auto release = std::make_shared<std::atomic<bool>>(false);
    ZnResolver::setLookupForTests([release](const ZnString& host) -> ZnResolver::Result {
        while (host == "slow.test" && !release->load())
            std::this_thread::yield();
        return {ZnSocketAddress::fromNumeric("127.0.0.1", 0)};
    });
    ASSERT_TRUE(server_.listen("127.0.0.1", 0));
    bool returned = false;
    bool accepted = true;
    application_.postEvent([&] {
        accepted = client_->connectToHost("slow.test", server_.localPort());
        returned = true;
    });
    ASSERT_TRUE(runUntil([&] { return parkedCount() == 1; }));
    runOnFiber([&] { // the loop is free for others
        ZnTcpSocket other;
        EXPECT_TRUE(other.connectToHost("quick.test", server_.localPort()));
        EXPECT_TRUE(other.waitForConnected(5000));
    });
    int errors = 0;
    client_->connect(&ZnAbstractSocket::errorOccurred, [&](int) { ++errors; });
    client_->close();
    ASSERT_TRUE(runUntil([&] { return returned; }));
    EXPECT_FALSE(accepted);
    EXPECT_EQ(errors, 0);

    returned = false;
    application_.postEvent([&] {
        client_->connectToHost("slow.test", server_.localPort());
        returned = true; // the socket is gone
    });
    ASSERT_TRUE(runUntil([&] { return parkedCount() == 1; }));
    client_.reset();
    release->store(true);
    EXPECT_TRUE(runUntil([&] { return returned; }));
}

TEST_F(ZnTcpSocketTest, ASocketMayBeDeletedInsideItsOwnSignalsAlsoWhenParked) {
    connectPair();
    bool done = false;
    ZnEventLoop gate;
    peer_->connect(&ZnIODevice::readyRead, [&] {
        gate.exec();
        done = true;
    });
    client_->connect(&ZnAbstractSocket::disconnected, [&] { client_.reset(); });
    client_->write(ZnString("x"));
    ASSERT_TRUE(runUntil([&] { return parkedCount() == 1; }));
    peer_.reset();                                 // while its event is being served
    auto reused = std::make_unique<ZnTcpSocket>(); // often at the same address
    gate.quit();
    ASSERT_TRUE(runUntil([&] { return done && client_ == nullptr; }));
    EXPECT_EQ(reused->state(), SocketState::Unconnected);
}

TEST_F(ZnTcpSocketTest, WaitsEndByTheirDeadline) {
    connectPair();
    runOnFiber([&] {
        EXPECT_TRUE(client_->waitForBytesWritten(10));
        client_->write(patternOf(32 * 1024 * 1024)); // nobody reads
        EXPECT_FALSE(client_->waitForBytesWritten(20));
        peer_->close();
        EXPECT_FALSE(client_->waitForBytesWritten(-1));
    });
}

TEST_F(ZnTcpSocketTest, CloseInsideDisconnectedEndsOnce) {
    connectPair();
    int count = 0;
    client_->connect(&ZnAbstractSocket::disconnected, [&] {
        ++count;
        client_->close();
    });
    client_->close();
    client_->close();
    EXPECT_EQ(count, 1);
    EXPECT_EQ(client_->state(), SocketState::Unconnected);
}

TEST_F(ZnTcpSocketTest, ListenAddresses) {
    constexpr const char* kRows[][2] = {{" 127.0.0.1 ", "127.0.0.1"}, {"0.0.0.0", "0.0.0.0"}, {"", "::"},
                                        {"[::1]", "::1"}, {"999.1.1.1", ""}, {"bad host name", ""}};
    for (const auto& [address, local] : kRows) {
        SCOPED_TRACE(address);
        LogCapture log;
        const bool isValid = *local != '\0';
        EXPECT_EQ(server_.listen(address, 0), isValid);
        EXPECT_EQ(server_.localAddress(), local);
        EXPECT_EQ(server_.localPort() != 0, isValid);
        EXPECT_EQ(log.countOf("invalid bind address: "), isValid ? 0 : 1);
    }
    ASSERT_TRUE(server_.listen("::", 0)); // one socket for both families
    ASSERT_TRUE(client_->connectToHost("127.0.0.1", server_.localPort()));
    ASSERT_TRUE(runUntil([&] { return (peer_.reset(server_.nextPendingConnection()), peer_ != nullptr); }));
    EXPECT_EQ(peer_->peerAddress(), "127.0.0.1"); // not the mapped form
    const unsigned short port = server_.localPort();
    EXPECT_TRUE(server_.listen("::", port));
    EXPECT_EQ(server_.localPort(), port);
    LogCapture log;
    ZnTcpServer second;
    EXPECT_FALSE(second.listen("::", port));
    EXPECT_EQ(log.countOf("bind failed: 10048") + log.countOf("listen failed: 10048"), 1);
}

TEST_F(ZnTcpSocketTest, ManyConnectionsAtOnceAreAllAccepted) {
    ASSERT_TRUE(server_.listen("127.0.0.1", 0));
    int announced = 0;
    server_.connect(&ZnTcpServer::newConnection, [&] { ++announced; });
    std::vector<std::unique_ptr<ZnTcpSocket>> clients;
    for (int i = 0; i < 300; ++i) {
        clients.push_back(std::make_unique<ZnTcpSocket>());
        ASSERT_TRUE(clients.back()->connectToHost("127.0.0.1", server_.localPort()));
    }
    EXPECT_TRUE(runUntil([&] { return announced == 300; }));
}

} // namespace
