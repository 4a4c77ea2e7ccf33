#include "core/io/http/ZnHttpInFlight_.h"

#include "core/io/http/ZnHttpServerCounters_.h"
#include "core/types/ZnLogger.h"

#include <utility>

ZnHttpInFlight_::ZnHttpInFlight_(std::shared_ptr<ZnHttpServerCounters_> counters, ZnHttpResponseCallback completion,
                                 long long startedNs)
    : counters_(std::move(counters)), completion_(std::move(completion)), startedNs_(startedNs) {}

ZnHttpInFlight_::~ZnHttpInFlight_() {
    if (!isFinished())
        counters_->abandon();
}

void ZnHttpInFlight_::finishRequest_(ZnHttpResponse&& response) {
    if (isFinished_.exchange(true, std::memory_order_relaxed)) // only tells one caller from another
        return;
    counters_->record(response, startedNs_, true);
    completion_(std::move(response));
}

void ZnHttpInFlight_::failRequest_(const char* errorText) {
    ZN_LOG_ERROR("zn.core.io.znhttpserver", "ZnHttpServer::handleRequest_")
        << "[ZnHttpServer] route failed: " << errorText;
    finishRequest_(ZnHttpResponse::plain(500, "Internal Server Error", false));
}
