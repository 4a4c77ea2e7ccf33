#pragma once

#include "agent/McpLogWriter.h"
#include "agent/McpObserver.h"
#include "core/types/ZnString.h"

#include <cstdint>

/// One JSON line for each request of a client and each call of a service: who, what, how long, and what came of it.
/// No arguments, tokens or header values.
///
/// Thread: that of the loop, which never waits for the file. Owner: shared by the agent and its observers.
class McpAccessLog final : public McpObserver {
public:
    static constexpr std::uint64_t kDefaultFileBytes = 67108864;

    /// `path`: "-" is standard output. A file is replaced when it has `maxFileBytes`, see McpLogFile.
    McpAccessLog(const ZnString& path, std::uint64_t maxFileBytes);

    /// False, with the reason, when the file cannot be opened.
    bool start(ZnString* problem) { return writer_.start(problem); }
    /// Lets what is queued be written, for a second at most; later records are dropped.
    void stop() { writer_.stop(); }

    void onRequest(const McpRequestRecord& record) override;
    void onCall(const McpCallRecord& record) override;
    /// Lines for which there was no room.
    std::uint64_t droppedCount() const { return writer_.droppedCount(); }

private:
    McpLogWriter writer_;
};
