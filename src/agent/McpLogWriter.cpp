#include "agent/McpLogWriter.h"

#include "core/platform/ZnMonotonicClock.h"
#include "core/types/ZnLogger.h"

#include <string>
#include <system_error>
#include <utility>

namespace {

constexpr const char* kCategory = "zn.agent.mcplogwriter";
constexpr int kStepMs = 50;   // of a wait for a pipe: the end may come meanwhile
constexpr int kRetryMs = 500; // after a failure

} // namespace

/// What the thread does, from its beginning to its end.
class McpLogWriter::Work_ {
public:
    explicit Work_(Shared_& shared) : queue_(shared.queue), file_(shared.file) {}

    void run() {
        std::string piece;
        while (queue_.take(&piece)) {
            writePiece_(piece);
            queue_.release(piece.size());
        }
        if (unwrittenBytes_ > 0)
            ZN_LOG_WARNING(kCategory, "McpLogWriter::Work_::run")
                << "access log " << file_.path() << ": " << unwrittenBytes_ << " bytes were not written at the end";
        queue_.finish();
    }

private:
    void writePiece_(std::string_view piece) {
        std::size_t at = 0;
        ZnString problem;
        while (at < piece.size()) {
            if (mustGiveUp_()) {
                unwrittenBytes_ += piece.size() - at;
                return;
            }
            problem.clear();
            if (!file_.write(piece, &at, kStepMs, &problem))
                waitAfter_(problem);
        }
        hasWarned_ = false;
    }

    /// The time that the end leaves is up, or nothing can be written then.
    bool mustGiveUp_() {
        if (!queue_.hasEnded())
            return false;
        const long long nowNs = monotonicNowNs();
        if (endedNs_ == 0)
            endedNs_ = nowNs;
        return hasWarned_ || nowNs - endedNs_ > (kEndMs - 2 * kStepMs) * 1000000LL;
    }

    void waitAfter_(const ZnString& problem) {
        if (!std::exchange(hasWarned_, true))
            ZN_LOG_WARNING(kCategory, "McpLogWriter::Work_::waitAfter_")
                << "access log " << file_.path() << ": " << problem << "; lines wait until that has changed";
        queue_.pause(kRetryMs);
    }

    McpLogQueue& queue_;
    McpLogFile& file_;
    bool hasWarned_ = false; // of what goes wrong now
    long long endedNs_ = 0;  // when the end was seen; 0: not yet
    std::size_t unwrittenBytes_ = 0;
};

McpLogWriter::McpLogWriter(std::function<std::string(std::uint64_t lostCount)> lossLine, ZnString path,
                           std::uint64_t maxFileBytes)
    : shared_(new Shared_{McpLogQueue(std::move(lossLine)), McpLogFile(std::move(path), maxFileBytes)}) {}

bool McpLogWriter::start(ZnString* problem) {
    if (!shared_->file.open(problem))
        return false;
    try {
        thread_ = std::thread([shared = shared_] { Work_(*shared).run(); });
    } catch (const std::system_error& error) {
        *problem = ZnString(error.what());
    }
    return thread_.joinable();
}

void McpLogWriter::stop() {
    if (!thread_.joinable())
        return;
    shared_->queue.end();
    if (shared_->queue.waitForFinish(kEndMs))
        thread_.join();
    else
        thread_.detach();
}
