#pragma once

#include "agent/McpServiceRules.h"
#include "core/types/ZnString.h"

#include <atomic>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

/// Tells records apart that were read one after the other. It is no part of what they say.
struct McpRecordSerial {
    bool operator==(const McpRecordSerial&) const noexcept { return true; }

    unsigned long long number = nextNumber_();

private:
    static unsigned long long nextNumber_() noexcept {
        static std::atomic<unsigned long long> last{0};
        return 1 + last.fetch_add(1, std::memory_order_relaxed);
    }
};

/// One service of the allowlist. Never changed once it was read: calls share it, also with a newer list in force.
struct McpBridgeServiceRecord {
    static constexpr std::int32_t kDefaultTimeoutMs = 15000;
    /// Of the protocol: Legacy has a handshake, Modern is revision 2026-07-28, Auto is whichever the service speaks.
    enum class Era { Legacy, Modern, Auto };

    ZnString id;
    ZnString title;
    ZnString description;
    ZnString transport = "streamable-http";
    ZnString endpoint;                                  // full URL
    ZnString bearerToken;                               // leaves the agent only in requests to `endpoint`
    std::vector<std::pair<ZnString, ZnString>> headers; // likewise: names and values of further ones
    ZnString problem;                                   // why it must not be called, for clients; empty: it may be
    ZnString tlsCaFile;
    McpServiceRules rules;
    bool enabled = true;
    bool interop = false;                       // requests and answers are exact, and answers may be event streams
    Era era = Era::Legacy;                      // another one has `interop` on
    bool keepsSessions = false;                 // calls without a session get one that the agent keeps
    std::optional<bool> keepAlive;              // whether connections to it are kept; nothing: as the agent is set
    std::int32_t timeoutMs = kDefaultTimeoutMs; // of one upstream call, 1 or more
    McpRecordSerial serial;

    bool operator==(const McpBridgeServiceRecord& other) const = default;
    std::int32_t limitMs() const noexcept { return timeoutMs < 1 ? kDefaultTimeoutMs : timeoutMs; }
};
