#pragma once

#include "core/io/http/ZnHttpResponse.h"

#include <atomic>
#include <exception>
#include <memory>

class ZnHttpServerCounters_;

/// One admitted request: counted from construction to its first answer, or to the end of the last one who could
/// have answered.
///
/// Thread: any, but for hasPlace. Owner: shared by all who could answer; outlives the server where a handler does.
class ZnHttpInFlight_ {
public:
    ZnHttpInFlight_(std::shared_ptr<ZnHttpServerCounters_> counters, ZnHttpResponseCallback completion,
                    long long startedNs);
    ZnHttpInFlight_(const ZnHttpInFlight_&) = delete;
    ZnHttpInFlight_& operator=(const ZnHttpInFlight_&) = delete;
    ~ZnHttpInFlight_();

    /// Any call but the first does nothing.
    void finishRequest_(ZnHttpResponse&& response);
    bool isFinished() const noexcept { return isFinished_.load(std::memory_order_relaxed); }

    /// Calls `step` and answers for it when it throws.
    template <typename Step>
    void run(Step step) {
        try {
            step();
        } catch (const std::exception& error) {
            failRequest_(error.what());
        } catch (...) {
            failRequest_("Unhandled non-std exception");
        }
    }

    ZnHttpServerCounters_& counters() const noexcept { return *counters_; }

    bool hasPlace = false; // among those that run on the loop, see ZnHttpLoopPlace_; server's thread only

private:
    void failRequest_(const char* errorText);

    const std::shared_ptr<ZnHttpServerCounters_> counters_;
    const ZnHttpResponseCallback completion_;
    const long long startedNs_;
    std::atomic<bool> isFinished_{false};
};
