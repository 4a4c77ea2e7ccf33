#include "agent/McpEventStream.h"

#include "agent/McpJson.h"
#include "core/runtime/ZnTimer.h"
#include "core/runtime/ZnWait.h"

#include <charconv>
#include <utility>

McpEventStream::McpEventStream(ZnAbstractSocket* socket, ZnString head) : socket_(socket) {
    socket->connect(&ZnAbstractSocket::disconnected, &receiver_, [this] { caller_.leave(); });
    socket->connect(&ZnAbstractSocket::errorOccurred, &receiver_, [this](int) { socket_->close(); }); // and leaves
    socket->connect(&ZnAbstractSocket::readyRead, &receiver_, [this] { discardInput_(); });
    socket->write(std::move(head));
    discardInput_();
}

McpEventStream::~McpEventStream() {
    if (!socket_)
        return;
    socket_->disconnectReceiver(&receiver_);
    socket_->close();
    socket_->deleteLater();
}

void McpEventStream::run(const std::function<McpReply(McpCaller&)>& call) {
    ZnTimer keepAlive;
    keepAlive.connect(&ZnTimer::timeout, &keepAlive, [this] {
        if (socket_ && !socket_->hasPendingWrites())
            writeChunk_(":\n\n", ZnByteArray(), {});
    });
    keepAlive.start(kKeepAliveMs);
    caller_.setSink([this](ZnByteArray message) { return tell_(std::move(message)); });
    McpReply reply = call(caller_);
    caller_.setSink(nullptr);
    if (!reply.text.isEmpty())
        writeEvent_(std::move(reply.text));
    if (!socket_ || !socket_->isOpen())
        return;
    ZnSignalWait wait;
    wait.expect(*socket_, &ZnAbstractSocket::writeFinished,
                [this] { return !socket_ || !socket_->hasPendingWrites(); });
    wait.endOn(*socket_, &ZnAbstractSocket::disconnected);
    wait.endOn(*socket_, &ZnObject::destroyed);
    socket_->write(ZnString("0\r\n\r\n"));
    if (socket_ && socket_->hasPendingWrites())
        wait.run(kLastWriteMs);
}

/// Nothing that the client says on this connection is heard any more.
void McpEventStream::discardInput_() {
    char buffer[4096];
    while (socket_ && socket_->readInto(buffer, sizeof(buffer)) > 0) {
    }
}

bool McpEventStream::tell_(ZnByteArray message) {
    if (!socket_ || socket_->hasPendingWrites())
        return false;
    writeEvent_(std::move(message));
    return true;
}

void McpEventStream::writeEvent_(ZnByteArray text) {
    mcp::makeOneLine(&text);
    writeChunk_("event: message\ndata: ", std::move(text), "\n\n");
}

void McpEventStream::writeChunk_(std::string_view before, ZnByteArray text, std::string_view after) {
    char digits[20];
    const auto end =
        std::to_chars(std::begin(digits), std::end(digits), before.size() + text.size() + after.size(), 16);
    ZnString head(std::string_view(digits, static_cast<std::size_t>(end.ptr - digits)));
    head.append("\r\n").append(before);
    text.append(after);
    text.append("\r\n");
    if (socket_)
        socket_->writeGathered(std::move(head), std::move(text));
}
