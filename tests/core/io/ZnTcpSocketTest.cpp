#include "core/io/ZnTcpSocket.h"
#include "core/io/ZnTcpServer.h"
#include "core/platform/ZnResolver.h"
#include "core/runtime/ZnEventLoop.h"
#include "support/LogCapture.h"
#include "support/LoopFixture.h"
#include "support/Loopback.h"

#include <algorithm>
#include <future>
#include <memory>
#include <unistd.h>

namespace {

/// A listening server and both ends of one connection.
class ZnTcpSocketTest : public LoopFixture {
protected:
    void SetUp() override { ASSERT_TRUE(server_.listen("127.0.0.1", 0)); }
    void TearDown() override { ZnResolver::setLookupForTests(nullptr); }

    void connectPair() {
        ASSERT_TRUE(client_->connectToHost("127.0.0.1", server_.localPort()));
        ASSERT_TRUE(runUntil([&] {
            if (!peer_)
                peer_.reset(server_.nextPendingConnection());
            return peer_ != nullptr && client_->isOpen();
        }));
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

TEST_F(ZnTcpSocketTest, ManyMegabytesCrossInOrderAndInTurns) {
    connectPair();
    EXPECT_EQ(peer_->peerPort(), client_->localPort());
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
    EXPECT_TRUE(client_->write(ZnString())); // nothing to finish
    EXPECT_TRUE(client_->writeGathered("x", ZnByteArray(sent)));
    ASSERT_TRUE(runUntil([&] { return received.size() == sent.size() + 1; }, 60000));
    EXPECT_TRUE(received == "x" + sent);
    EXPECT_EQ(client_->bytesSent(), sent.size() + 1);
    EXPECT_EQ(finished, 1);
    EXPECT_LE(largestTurn, ZnTcpSocket::kReadBudgetBytes + ZnTcpSocket::kReadBytes);
}

TEST_F(ZnTcpSocketTest, AReaderThatStopsEarlyGetsTheRestAndThenTheEnd) {
    connectPair();
    ZnString received;
    int closedCount = 0;
    client_->connect(&ZnIODevice::readyRead, [&] { received += client_->read(100); }); // one short look per event
    client_->connect(&ZnAbstractSocket::disconnected, [&] {
        EXPECT_EQ(client_->state(), SocketState::Connected); // receivers still see the old state
        ++closedCount;
        client_->close();
    });
    peer_->write(patternOf(1000));
    peer_->close();
    EXPECT_EQ(peer_->state(), SocketState::Unconnected);
    ASSERT_TRUE(runUntil([&] { return closedCount > 0; }));
    EXPECT_EQ(received, patternOf(1000));
    client_->close();
    EXPECT_EQ(closedCount, 1);
    EXPECT_EQ(client_->state(), SocketState::Unconnected);
    EXPECT_FALSE(client_->write(ZnString("late")));
}

TEST_F(ZnTcpSocketTest, AnswersReachAPeerThatHasClosedItsSideOnly) {
    auto answer = std::async(std::launch::async, [port = server_.localPort()] {
        const int descriptor = connectToLoopback(port);
        EXPECT_EQ(::send(descriptor, "ask", 3, 0), 3);
        ::shutdown(descriptor, SHUT_WR);
        const std::string received = receiveAll(descriptor);
        ::close(descriptor);
        return received;
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
    EXPECT_TRUE(answer.get() == large.str());
}

TEST_F(ZnTcpSocketTest, NamesAreResolvedWhileTheLoopGoesOnAndACloseEndsTheWait) {
    std::promise<void> release;
    ZnResolver::setLookupForTests(
        [released = release.get_future().share()](const ZnString& host) -> ZnResolver::Result {
            if (host == "slow.test")
                released.wait();
            return {ZnSocketAddress::fromNumeric("127.0.0.1", 0)};
        });
    bool returned = false;
    application_.postEvent([&] {
        EXPECT_FALSE(client_->connectToHost("slow.test", server_.localPort()));
        returned = true;
    });
    ASSERT_TRUE(runUntil([&] { return parkedCount() == 1; }));
    runOnFiber([&] { // the loop is free for others
        ZnTcpSocket other;
        EXPECT_TRUE(other.connectToHost("quick.test", server_.localPort()));
        EXPECT_TRUE(other.waitForConnected(5000));
    });
    client_->connect(&ZnAbstractSocket::errorOccurred, [&](int) { ADD_FAILURE() << "a close is no error"; });
    client_->close();
    EXPECT_TRUE(runUntil([&] { return returned; }));
    release.set_value();
}

TEST_F(ZnTcpSocketTest, TheAddressesOfANameAreTriedInTurnAndTheLastFailureIsTold) {
    const auto numeric = [](const char* text) { return ZnSocketAddress::fromNumeric(text, 0); };
    ZnResolver::setLookupForTests([&](const ZnString& host) -> ZnResolver::Result {
        if (host == "last.test")
            return {numeric("::1"), numeric("127.0.0.2"), numeric("127.0.0.3"), numeric("127.0.0.1")};
        return {numeric("255.255.255.255"), numeric("127.0.0.2"), numeric("127.0.0.3")};
    });
    std::string signalTexts;
    client_->connect(&ZnAbstractSocket::connected, [&] { signalTexts += "connected "; });
    client_->connect(&ZnAbstractSocket::errorOccurred, [&](int code) { signalTexts += std::to_string(code) + " "; });
    client_->connect(&ZnAbstractSocket::disconnected, [&] { signalTexts += "disconnected "; });
    runOnFiber([&] {
        EXPECT_TRUE(client_->connectToHost("last.test", server_.localPort()));
        EXPECT_TRUE(client_->waitForConnected(5000));
    });
    EXPECT_EQ(client_->peerAddress(), "127.0.0.1");
    client_->close();
    runOnFiber([&] {
        client_->connectToHost("none.test", server_.localPort());
        EXPECT_FALSE(client_->waitForConnected(5000));
    });
    EXPECT_EQ(signalTexts.substr(0, 29), "connected disconnected 10061 ");
    EXPECT_EQ(signalTexts.find("10061", 29), std::string::npos);
}

TEST_F(ZnTcpSocketTest, AListenerOnANameServesAllItsAddressesWithOnePort) {
    static std::vector<const char*> addresses;
    ZnResolver::setLookupForTests([](const ZnString&) {
        ZnResolver::Result result;
        for (const char* address : addresses)
            result.push_back(ZnSocketAddress::fromNumeric(address, 0));
        return result;
    });
    addresses = {"192.0.2.1", "127.0.0.1", "127.0.0.2", "127.0.0.1"}; // the first is none of this machine's
    ASSERT_TRUE(server_.listen("name.test", 0));
    EXPECT_EQ(server_.localAddress(), "127.0.0.1");
    runOnFiber([&] {
        for (const char* address : {"127.0.0.1", "127.0.0.2"}) {
            ZnTcpSocket client;
            EXPECT_TRUE(client.connectToHost(address, server_.localPort()) && client.waitForConnected(5000)) << address;
        }
    });
    LogCapture log;
    addresses = {"127.0.0.3", "127.0.0.2"}; // the second is taken
    ZnTcpServer other;
    EXPECT_FALSE(other.listen("name.test", server_.localPort()) || other.isListening());
    EXPECT_EQ(log.countOf("failed: 10048"), 1);
    addresses = {"192.0.2.1"};
    EXPECT_FALSE(other.listen("name.test", 0));
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

TEST_F(ZnTcpSocketTest, ListenAddresses) {
    constexpr const char* kRows[][2] = {{" 127.0.0.1 ", "127.0.0.1"}, {"", "::"}, {"[::1]", "::1"}, {"999.1.1.1", ""}};
    LogCapture log;
    for (const auto& [address, local] : kRows) {
        const bool isValid = *local != '\0';
        EXPECT_EQ(server_.listen(address, 0), isValid) << address;
        EXPECT_EQ(server_.localAddress(), local) << address;
        EXPECT_EQ(server_.localPort() != 0, isValid) << address;
    }
    EXPECT_EQ(log.countOf("invalid bind address: 999.1.1.1"), 1);
    ASSERT_TRUE(server_.listen("::", 0)); // one socket for both families
    connectPair();
    EXPECT_EQ(peer_->peerAddress(), "127.0.0.1"); // not the mapped form
    const unsigned short port = server_.localPort();
    EXPECT_TRUE(server_.listen("::", port));
    EXPECT_EQ(server_.localPort(), port);
    EXPECT_FALSE(ZnTcpServer().listen("::", port));
    EXPECT_EQ(log.countOf("bind failed: 10048") + log.countOf("listen failed: 10048"), 1);
}

} // namespace
