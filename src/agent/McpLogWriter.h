#pragma once

#include "agent/McpLogFile.h"
#include "agent/McpLogQueue.h"

#include <memory>
#include <string_view>
#include <thread>

/// Writes lines to a file on a thread of its own, so that nobody waits for a slow disk, a full one, or a pipe that
/// nobody reads. Lines wait while the file cannot be written, and what has no room to wait is dropped.
///
/// Thread: append() any, the rest one. Owner: the access log. The thread shares what it needs, and is left alone when
/// the disk does not let it go.
class McpLogWriter {
public:
    static constexpr int kEndMs = 1000; // in which what is queued must be written

    /// As for McpLogQueue and McpLogFile.
    McpLogWriter(std::function<std::string(std::uint64_t lostCount)> lossLine, ZnString path,
                 std::uint64_t maxFileBytes);
    ~McpLogWriter() { stop(); }
    McpLogWriter(const McpLogWriter&) = delete;
    McpLogWriter& operator=(const McpLogWriter&) = delete;

    /// Opens the file. False, with the reason, when it cannot be opened. Once.
    bool start(ZnString* problem);
    /// Never waits.
    void append(std::string_view line) { shared_->queue.append(line); }
    std::uint64_t droppedCount() const { return shared_->queue.droppedCount(); }
    /// Lets what is queued be written, for kEndMs at most.
    void stop();

private:
    struct Shared_ {
        McpLogQueue queue;
        McpLogFile file; // of the thread, once that runs
    };
    class Work_;

    const std::shared_ptr<Shared_> shared_;
    std::thread thread_;
};
