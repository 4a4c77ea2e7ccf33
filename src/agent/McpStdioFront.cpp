#include "agent/McpStdioFront.h"

#include "agent/McpJson.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnWait.h"

#include <algorithm>
#include <utility>

namespace {

constexpr int kInvalidRequest = -32600;
constexpr int kServerBusy = -32000;
constexpr std::string_view kOwner = "\nstdio"; // no header can carry it, so that no client over HTTP has it

ZnByteArray errorLine(std::string_view idText, int code, const char* text) {
    const ZnJsonObject error{{"code", code}, {"message", text}};
    ZnString line = "{\"error\": " + ZnJsonValue(error).toJson() + ",\"id\": ";
    return ZnByteArray(line.append(idText).append(",\"jsonrpc\": \"2.0\"}"));
}

/// What is a status of HTTP to others is an error of JSON-RPC here. Empty: the message gets no answer.
ZnByteArray textOf(McpReply* reply, bool hasSession) {
    if (reply->status < 400 || reply->isJsonRpc)
        return std::move(reply->text);
    if (reply->idText.isEmpty())
        return {};
    if (reply->status == 503)
        return errorLine(reply->idText.view(), kServerBusy, "The agent is stopping");
    if (reply->status == 404)
        return errorLine(reply->idText.view(), kInvalidRequest, "The session has ended");
    const bool lacksSession = !hasSession && reply->idText != "null";
    return errorLine(reply->idText.view(), kInvalidRequest, lacksSession ? "Not initialized" : reply->problem);
}

} // namespace

/// Keeps the caller of one message in the list of those that are being answered.
class McpStdioFront::Sender_ {
public:
    explicit Sender_(McpStdioFront& front) : front_(front), at_(front.senders_.insert(front.senders_.end(), &caller)) {}
    ~Sender_() { front_.senders_.erase(at_); }
    Sender_(const Sender_&) = delete;
    Sender_& operator=(const Sender_&) = delete;

    McpCaller caller;

private:
    McpStdioFront& front_;
    const std::list<McpCaller*>::iterator at_;
};

McpStdioFront::McpStdioFront(std::shared_ptr<McpDispatcher> dispatcher, std::size_t maxMessageBytes)
    : dispatcher_(std::move(dispatcher)), maxMessageBytes_(maxMessageBytes) {}

McpStdioFront::~McpStdioFront() {
    stopReading();
    dropOutput_();
}

bool McpStdioFront::start(std::function<void()> onEnd) {
    input_ = ZnStandardStream::input();
    output_ = ZnStandardStream::takeOutput();
    if (!input_ || !output_)
        return false;
    onEnd_ = std::move(onEnd);
    inputWatch_ = watch_(input_, &McpStdioFront::read_);
    outputWatch_ = watch_(output_, &McpStdioFront::write_);
    postRead_();
    return true;
}

/// 0 for what cannot be watched and need not be, since it is always ready.
unsigned long long McpStdioFront::watch_(const std::shared_ptr<ZnStandardStream>& stream,
                                         void (McpStdioFront::*step)()) {
    if (!stream->isWatchable())
        return 0;
    return ZnCoreApplication::instance()->ioDispatcher().watchHandle(stream, [weak = weak_from_this(), step](unsigned) {
        if (const std::shared_ptr<McpStdioFront> self = weak.lock())
            (self.get()->*step)();
    });
}

void McpStdioFront::stopReading() {
    hasInputEnded_ = true;
    if (ZnCoreApplication* application = ZnCoreApplication::instance())
        application->ioDispatcher().unwatch(std::exchange(inputWatch_, 0));
}

// --- input

void McpStdioFront::read_() {
    if (std::exchange(isReading_, true))
        return; // parked between two pieces
    do {
        takeInput_();
    } while (!mustWait_() && readMore_());
    isReading_ = false;
    isHeldUp_ = mustWait_();
    endIfDone_();
}

/// Whether there is more input now.
bool McpStdioFront::readMore_() {
    if (hasInputEnded_)
        return false;
    sleepFor(0);
    const ZnStandardStream::Transfer transfer = input_->read(chunk_.data(), chunk_.size());
    unread_ = {chunk_.data(), transfer.byteCount};
    if (transfer.hasEnded) {
        stopReading();
        endLine_(); // the last line may lack its end
    }
    return !unread_.empty();
}

void McpStdioFront::takeInput_() {
    while (!unread_.empty() && !mustWait_()) {
        const std::size_t end = std::min(unread_.find('\n'), unread_.size());
        isTooLong_ = isTooLong_ || line_.size() + end > maxMessageBytes_;
        if (isTooLong_)
            line_.release();
        else
            line_.append(unread_.substr(0, end));
        const bool isWhole = end < unread_.size();
        unread_.remove_prefix(end + (isWhole ? 1 : 0));
        if (isWhole)
            endLine_();
    }
}

void McpStdioFront::endLine_() {
    if (std::exchange(isTooLong_, false))
        return send_(errorLine("null", kInvalidRequest, "The message is too large"), nullptr);
    ZnByteArray text = std::exchange(line_, ZnByteArray());
    if (!trimmedView(text.view()).empty())
        begin_(std::move(text));
}

/// Each message has a fiber of its own, since its answer may be long in coming.
void McpStdioFront::begin_(ZnByteArray text) {
    auto sender = std::make_shared<Sender_>(*this);
    ZnTask task([self = shared_from_this(), sender = std::move(sender), text = std::move(text)]() mutable {
        self->answer_(std::move(text), sender->caller);
        sender.reset();
        self->goOn_();
    });
    ZnCoreApplication::instance()->post(task, {.whenFull = ZnPostOptions::WhenFull::Wait});
}

// --- answers

void McpStdioFront::answer_(ZnByteArray text, McpCaller& caller) {
    const bool hasSession = !sessionId_.isEmpty();
    McpReply reply = answerOf_(std::move(text), caller);
    for (McpReply::Header& header : reply.headers) {
        if (std::string_view(header.name) == "mcp-session-id")
            dispatcher_->endSession(std::exchange(sessionId_, std::move(header.value)).view());
    }
    ZnByteArray answer = textOf(&reply, hasSession);
    if (!answer.isEmpty())
        send_(std::move(answer), std::move(reply.keptUntilSent));
}

McpReply McpStdioFront::answerOf_(ZnByteArray text, McpCaller& caller) {
    const ZnString sessionId = sessionId_; // another initialize may change it meanwhile
    McpMessage message(std::move(text), caller);
    message.sessionId = sessionId.view();
    message.mayCancel = true;
    message.owner = kOwner;
    caller.setSink([this](ZnByteArray note) {
        if (unsentBytes_ != 0)
            return false; // a slow reader misses messages about a call, but no answer
        send_(std::move(note), nullptr);
        return true;
    });
    return dispatcher_->answer(std::move(message));
}

void McpStdioFront::send_(ZnByteArray text, std::shared_ptr<const void> keptUntilSent) {
    if (!output_)
        return;
    mcp::makeOneLine(&text);
    text.append("\n");
    unsentBytes_ += text.size();
    unsent_.push_back({std::move(text), std::move(keptUntilSent)});
    if (unsent_.size() == 1) // else the output is full
        write_();
}

void McpStdioFront::write_() {
    while (output_ && !unsent_.empty()) {
        Line_& line = unsent_.front();
        const std::string_view rest = line.text.view().substr(line.sentBytes);
        const ZnStandardStream::Transfer transfer = output_->write(rest.data(), rest.size());
        if (transfer.hasEnded)
            return dropOutput_();
        if (transfer.wouldBlock)
            return;
        line.sentBytes += transfer.byteCount;
        unsentBytes_ -= transfer.byteCount;
        if (line.sentBytes == line.text.size())
            unsent_.pop_front();
    }
    goOn_();
}

/// Nobody takes answers any more, so nobody waits for calls either.
void McpStdioFront::dropOutput_() {
    if (ZnCoreApplication* application = ZnCoreApplication::instance())
        application->ioDispatcher().unwatch(std::exchange(outputWatch_, 0));
    output_ = nullptr;
    unsent_.clear();
    unsentBytes_ = 0;
    stopReading();
    for (McpCaller* caller : senders_)
        caller->leave();
    endIfDone_();
}

/// Reads on where reading had to wait.
void McpStdioFront::goOn_() {
    endIfDone_();
    if (!mustWait_() && std::exchange(isHeldUp_, false))
        postRead_();
}

void McpStdioFront::postRead_() {
    ZnTask task([self = weak_from_this()] {
        if (const std::shared_ptr<McpStdioFront> front = self.lock())
            front->read_();
    });
    ZnCoreApplication::instance()->post(task, {.whenFull = ZnPostOptions::WhenFull::Wait});
}

void McpStdioFront::endIfDone_() {
    if (!hasInputEnded_ || !unread_.empty() || isReading_ || !isIdle() || !onEnd_)
        return;
    dispatcher_->endSession(std::exchange(sessionId_, ZnString()).view());
    std::exchange(onEnd_, nullptr)();
}
