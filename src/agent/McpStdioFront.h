#pragma once

#include "agent/McpDispatcher.h"
#include "agent/McpMessage.h"
#include "agent/McpReply.h"
#include "core/platform/ZnStandardStream.h"
#include "core/types/ZnByteArray.h"
#include "core/types/ZnString.h"

#include <array>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <string_view>

/// Messages on standard input and answers on standard output, each on a line of its own: for clients that start the
/// agent as a command. The process has one client, whose session `initialize` opens.
///
/// Messages are answered at the same time, and each answer goes out when it is there. While many are being answered,
/// or much is not taken by the client, no more is read. The front has ended when the input has and every answer is
/// out, or when nobody takes answers any more.
/// Thread: that of the loop, on fibers. Owner: shared by the agent and the fibers that answer.
class McpStdioFront : public std::enable_shared_from_this<McpStdioFront> {
public:
    static constexpr std::size_t kMaxMessages = 100;       // being answered
    static constexpr std::size_t kMaxUnsentBytes = 262144; // of answers

    /// `maxMessageBytes`: of one message; a larger one is refused.
    McpStdioFront(std::shared_ptr<McpDispatcher> dispatcher, std::size_t maxMessageBytes);
    ~McpStdioFront();
    McpStdioFront(const McpStdioFront&) = delete;
    McpStdioFront& operator=(const McpStdioFront&) = delete;

    /// Takes both streams. `onEnd` is called once when the front has ended. False when the process lacks one of them.
    bool start(std::function<void()> onEnd);
    /// Reads no more.
    void stopReading();
    /// Whether nothing is being answered and every answer is out.
    bool isIdle() const noexcept { return senders_.empty() && unsent_.empty(); }

private:
    struct Line_ {
        ZnByteArray text;
        std::shared_ptr<const void> keptUntilSent;
        std::size_t sentBytes = 0;
    };
    class Sender_; // of one message that is being answered

    unsigned long long watch_(const std::shared_ptr<ZnStandardStream>& stream, void (McpStdioFront::*step)());
    void read_();
    bool mustWait_() const noexcept { return senders_.size() >= kMaxMessages || unsentBytes_ >= kMaxUnsentBytes; }
    bool readMore_();
    void takeInput_();
    void endLine_();
    void begin_(ZnByteArray text);
    void answer_(ZnByteArray text, McpCaller& caller);
    McpReply answerOf_(ZnByteArray text, McpCaller& caller);
    void send_(ZnByteArray text, std::shared_ptr<const void> keptUntilSent);
    void write_();
    void dropOutput_();
    void goOn_();
    void postRead_();
    void endIfDone_();

    const std::shared_ptr<McpDispatcher> dispatcher_;
    const std::size_t maxMessageBytes_;
    std::function<void()> onEnd_; // null once it was called
    std::shared_ptr<ZnStandardStream> input_;
    std::shared_ptr<ZnStandardStream> output_; // null when nobody takes answers any more
    unsigned long long inputWatch_ = 0;
    unsigned long long outputWatch_ = 0;

    std::array<char, 65536> chunk_ = {};
    std::string_view unread_; // of chunk_
    ZnByteArray line_;        // the message so far
    bool isTooLong_ = false;  // the message: the rest of it is passed over
    bool isReading_ = false;
    bool isHeldUp_ = false; // reading: until an answer is out
    bool hasInputEnded_ = false;

    ZnString sessionId_;
    std::list<McpCaller*> senders_;
    std::deque<Line_> unsent_;
    std::size_t unsentBytes_ = 0;
};
