#pragma once

#include "core/platform/ZnSocketHandle.h"
#include "core/types/ZnString.h"

#include <functional>
#include <vector>

/// Host names to addresses, without stopping the thread that asks.
///
/// A lookup runs on one of a few threads of the process's own; equal names that are asked for while a lookup runs
/// share it, so that a dead name server holds up the names that depend on it and no others. Whoever does not wait any
/// longer withdraws: a name that nobody waits for leaves the queue, and a lookup that nobody waits for, which cannot be
/// stopped, gives its place to another one. Names of this machine itself (localhost, the hosts file) have a thread of
/// their own when all places are taken: they do not wait behind names that nobody answers.
/// Thread: any.
class ZnResolver {
public:
    using Result = std::vector<ZnSocketAddress>; // in the system's order; empty when the name is not known
    using Lookup = std::function<Result(const ZnString& host)>;

    /// At most this many names that somebody waits for are looked up at the same time; further ones wait.
    static constexpr std::size_t kMaxThreads = 32;
    /// At most this many lookups that nobody waits for any more run beside them.
    static constexpr std::size_t kMaxAbandoned = 96;

    /// Answers `callback` on a resolver thread, once; where the system has no thread to give, on the caller's at once,
    /// with nothing. The port of the addresses is 0. Returns an id for withdraw.
    static unsigned long long resolve(const ZnString& host, std::function<void(const Result&)> callback);
    /// The callback is not called any more, unless it is just being called. An id that was answered does nothing.
    static void withdraw(unsigned long long id);
    /// Blocks the calling thread.
    static Result resolveNow(const ZnString& host);
    /// As resolveNow for listening addresses, with their port; an empty host stands for the wildcards.
    static Result resolvePassive(const ZnString& host, unsigned short port);

    /// Puts another lookup in the system's place, for tests; an empty one restores it.
    static void setLookupForTests(Lookup lookup);
};
