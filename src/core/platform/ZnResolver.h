#pragma once

#include "core/platform/ZnSocketHandle.h"
#include "core/types/ZnString.h"

#include <functional>
#include <vector>

/// Host names to addresses, without stopping the thread that asks.
///
/// A lookup runs on one of a few threads of the process's own; equal names that are asked for while a lookup runs
/// share it, so that a dead name server holds up the names that depend on it and no others.
/// Thread: any.
class ZnResolver {
public:
    using Result = std::vector<ZnSocketAddress>; // in the system's order; empty when the name is not known
    using Lookup = std::function<Result(const ZnString& host)>;

    /// At most this many names are looked up at the same time; further ones wait.
    static constexpr std::size_t kMaxThreads = 32;

    /// Answers `callback` on a resolver thread, once; where the system has no thread to give, on the caller's at once,
    /// with nothing. The port of the addresses is 0.
    static void resolve(const ZnString& host, std::function<void(const Result&)> callback);
    /// Blocks the calling thread.
    static Result resolveNow(const ZnString& host);
    /// As resolveNow for a listening address: `family` None asks for both, an empty host for the wildcard.
    static Result resolvePassive(const ZnString& host, ZnSocketAddress::Family family, unsigned short port);

    /// Puts another lookup in the system's place, for tests; an empty one restores it.
    static void setLookupForTests(Lookup lookup);
};
