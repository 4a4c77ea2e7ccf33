#pragma once

#include "core/types/ZnString.h"

#include <cstdint>
#include <memory>

namespace zn::ipc {

/// The publishing side of one signal.
///
/// A publication is a state, not a message: whoever listens learns the latest one, and perhaps not those in between.
/// Thread: any, but one at a time may end it. Best on a thread with a loop, which says later what could not be said at
/// once; else the fallback thread does.
/// Owner: whoever opened it. A child that has been forked opens its own.
class Channel {
public:
    /// Null, with the reason, on failure. Texts of at most 64, 64 and 160 bytes.
    static std::unique_ptr<Channel> open(const ZnString& domain, const ZnString& object, const ZnString& signal,
                                         ZnString* errorText);
    /// Tries once more to say what is unsaid.
    ~Channel();
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    /// Publishes the two values and wakes whoever listens. True always: when another process stands still with the
    /// channel's or the registry's mutex in hand, this waits a few milliseconds and the rest is done later, for the
    /// latest values only.
    bool publish(std::uint64_t first, std::uint64_t second);
    /// Whether something is still to be done later.
    bool hasUnsaid() const;

private:
    class Core_;
    explicit Channel(std::shared_ptr<Core_> core);

    const std::shared_ptr<Core_> core_;
};

} // namespace zn::ipc
