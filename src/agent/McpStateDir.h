#pragma once

#include "agent/McpObserver.h"
#include "agent/McpSessionKeeper.h"
#include "core/types/ZnString.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

/// What outlives the agent, in a store in a directory of its own: the sessions, and the trail of calls.
///
/// Nobody waits for the disk: what is told is queued, a bounded number of it, and written by a thread of this object,
/// several times a second; what finds no room is counted, told on standard error, and lost. A power failure may take
/// the last second. Those who follow the trail are woken.
/// Thread: onCall() that of the loop, keep() and forget() any, the rest the owner's. Owner: shared by the agent and its
/// dispatcher.
class McpStateDir final : public McpObserver, public McpSessionKeeper {
public:
    static constexpr std::size_t kMaxQueuedCalls = 10000;
    static constexpr std::size_t kMaxQueuedSessions = 20000;
    static constexpr int kSessionDays = 7; // a session that nobody used for so long is not kept

    struct Settings {
        int maxDays = 30;
        std::int64_t maxBytes = 268435456; // of the disk, at least 65536
        std::function<long long()> clock;  // microseconds since 1970; empty: the system's
        int stopMs = 5000;                 // how long stop() waits for the disk at most
    };

    /// Null, with the reason, when the directory cannot be used. One that is made is for this user alone.
    static std::shared_ptr<McpStateDir> open(const ZnString& path, const Settings& settings, ZnString* problem);
    ~McpStateDir() override;
    McpStateDir(const McpStateDir&) = delete;
    McpStateDir& operator=(const McpStateDir&) = delete;

    /// The sessions of before, those last used first to last; once.
    std::vector<McpKeptSession> takeSessions();

    void onRequest(const McpRequestRecord& /*record*/) override {}
    void onCall(const McpCallRecord& record) override;
    void keep(const McpBridgeSession& session, bool isUsed, long long day) override;
    void forget(const McpBridgeSession& session) override;

    /// Writes what is queued and closes the store; gives up after Settings::stopMs, when the disk does not answer.
    void stop();

    /// Under which followers wait for calls, as the names of a signal between processes.
    struct Signal {
        ZnString domain;
        ZnString object;
        ZnString signal;
    };
    static Signal signalOf(const ZnString& path);

private:
    class Core_;
    explicit McpStateDir(std::shared_ptr<Core_> core);

    const std::shared_ptr<Core_> core_; // shared with its threads, which stop() may leave alone with it
};
