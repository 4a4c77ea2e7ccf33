#pragma once

/// Something that a console stop (SIGINT, SIGQUIT, SIGHUP, SIGTERM) ends.
class ZnConsoleStopTarget {
public:
    ZnConsoleStopTarget() = default;
    ZnConsoleStopTarget(const ZnConsoleStopTarget&) = delete;
    ZnConsoleStopTarget& operator=(const ZnConsoleStopTarget&) = delete;

    /// Called inside a signal handler, on any thread: only lock-free atomics and write() may be used. Returns whether
    /// the program can end by it; false for what only works for others.
    virtual bool requestStop() noexcept = 0;

protected:
    virtual ~ZnConsoleStopTarget() = default;
};

/// The process-wide console handler. The first stop signal tells every target; a second one, while targets are
/// still there, ends the process at once with 128 plus the signal's number. So does the first one when the program can
/// end by none of its targets.
namespace ZnConsoleStop {
/// Installs the handlers at the first call (and ignores SIGPIPE), and adds the target. Any thread.
void add(ZnConsoleStopTarget* target);
/// After it returns requestStop is not called any more. Any thread.
void remove(ZnConsoleStopTarget* target);
} // namespace ZnConsoleStop
