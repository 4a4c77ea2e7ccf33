#pragma once

#include "core/types/ZnMutex.h"
#include "core/types/ZnString.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <sstream>
#include <vector>

/// The fixed part of one log call. All pointers are to literals.
struct ZnLogRecord {
    const char* file;
    int line;
    const char* function; // class, two colons, member
    int level;            // ZnLogger::kDebug, kWarning or kError
    const char* category; // "zn.core.<folder>.<lowercase class>"; null or empty is always written
};

/// One rule of the filter; the last rule that matches a category and level decides.
struct ZnLogRule {
    ZnString pattern; // "*" stands for any run of characters
    std::uint8_t mask = 0;
    bool enabled = false;
};

/// The process-wide log: console, and optionally a file, a TCP peer and callbacks.
///
/// Thread: every operation may be called from any thread and any fiber; nothing here parks. Lines of
/// different threads do not interleave. No lock is held while a callback runs, so a callback may log.
/// Failure: never reported to the caller; a sink that fails loses its own copy of the line.
/// Lives until the process ends and is never destroyed, so that detached threads may log to the very end.
class ZnLogger {
public:
    static constexpr int kDebug = 0;
    static constexpr int kWarning = 1;
    static constexpr int kError = 2;

    static ZnLogger& instance();

    /// Costs one atomic read while there are no rules.
    bool isEnabled(const char* category, int level);
    /// Leaves errno as it was.
    void write(const ZnLogRecord& record, const ZnString& message) noexcept;
    /// Replaces the rules: pieces "pattern[.level]=boolean" separated by ";" or line feeds.
    void parseRules(const ZnString& text);

    void setAppName(const ZnString& appName);
    void setVersion(const ZnString& version);
    void setConsoleEnabled(bool enabled);
    /// Appends every line to `path`, opened and closed per line; an empty path switches the sink off.
    void setFile(const ZnString& path);
    /// Writes only lines whose body matches the ECMAScript expression; empty switches the filter off.
    /// Returns false, with the filter unchanged, for an expression that does not compile (back references are
    /// not supported). The search takes a time linear in the length of the line.
    bool setFilter(const ZnString& pattern);
    /// Sends each line as one JSON object to a TCP peer, connected on demand; an empty host switches it off.
    /// Blocks the logging thread while it connects and sends.
    void setNetwork(const ZnString& host, unsigned short port);
    /// Calls `sink` with every text line. Returns an id for removeSink.
    int addSink(std::function<void(const ZnString&)> sink);
    void removeSink(int id);

    /// Local time, "hhmmss.uuuuuu".
    static ZnString timestampNow();

    ZnLogger(const ZnLogger&) = delete;
    ZnLogger& operator=(const ZnLogger&) = delete;

private:
    ZnLogger();
    ~ZnLogger() = delete;

    struct State_; // everything that writeMutex_ guards; see ZnLogger.cpp
    ZnMutex writeMutex_;
    std::unique_ptr<State_> state_ ZN_GUARDED_BY(writeMutex_);

    ZnMutex rulesMutex_; // never held together with writeMutex_
    std::vector<ZnLogRule> rules_ ZN_GUARDED_BY(rulesMutex_);
    std::atomic<bool> hasRules_{false}; // follows rules_; read without the lock
    const bool debugDefault_ = false;
    const bool warningDefault_ = true;
    const bool errorDefault_ = true;
};

/// Collects one message and writes it at the end of the statement; made by the macros below only.
class ZnLogStatement {
public:
    explicit ZnLogStatement(const ZnLogRecord& record) : record_(record) {}
    ~ZnLogStatement();
    ZnLogStatement(const ZnLogStatement&) = delete;
    ZnLogStatement& operator=(const ZnLogStatement&) = delete;
    std::ostream& stream() { return stream_; }

private:
    ZnLogRecord record_;
    std::ostringstream stream_;
};

namespace zn::detail {
/// Turns a streamed message into a void expression, so that the macros below are one expression and safe in any
/// unbraced branch.
struct LogExpression_ {
    void operator&(const std::ostream&) const noexcept {}
};
} // namespace zn::detail

// ZN_LOG_ERROR("zn.core.io.zntcpserver", "ZnTcpServer::listen") << "bind failed: " << code;
// The message is not evaluated when the category and level are off.
#define ZN_LOG_(level, category, function)                                                                             \
    !ZnLogger::instance().isEnabled((category), (level))                                                               \
        ? static_cast<void>(0)                                                                                         \
        : ::zn::detail::LogExpression_() &                                                                             \
              ZnLogStatement(ZnLogRecord{__FILE__, __LINE__, (function), (level), (category)}).stream()
#define ZN_LOG_DEBUG(category, function) ZN_LOG_(ZnLogger::kDebug, category, function)
#define ZN_LOG_WARNING(category, function) ZN_LOG_(ZnLogger::kWarning, category, function)
#define ZN_LOG_ERROR(category, function) ZN_LOG_(ZnLogger::kError, category, function)
