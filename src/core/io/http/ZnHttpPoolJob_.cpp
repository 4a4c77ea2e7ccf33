#include "core/io/http/ZnHttpPoolJob_.h"

#include "core/io/http/ZnHttpFilters_.h"
#include "core/io/http/ZnHttpInFlight_.h"
#include "core/io/http/ZnHttpServerCounters_.h"

#include <utility>

ZnHttpPoolJob_::ZnHttpPoolJob_(std::shared_ptr<ZnHttpInFlight_> inFlight, std::shared_ptr<const ZnHttpRequest> request,
                               std::shared_ptr<const FilterList> filters, ZnHttpRouter::Target target)
    : inFlight_(std::move(inFlight)),
      request_(std::move(request)),
      filters_(std::move(filters)),
      target_(std::move(target)) {}

ZnHttpPoolJob_::~ZnHttpPoolJob_() {
    if (inFlight_)
        end_(ZnHttpResponse::plain(503, "ThreadPool unavailable", request_->keepAlive));
}

void ZnHttpPoolJob_::operator()() {
    const std::shared_ptr<ZnHttpInFlight_> inFlight = inFlight_;
    inFlight->run([this] {
        ZnHttpResponse response;
        if (!filters_ || !zn::http::runFilters(*filters_, *request_, &response))
            response = target_.answer(*request_);
        end_(std::move(response));
    });
}

void ZnHttpPoolJob_::end_(ZnHttpResponse response) {
    const std::shared_ptr<ZnHttpInFlight_> inFlight = std::move(inFlight_);
    inFlight->counters().leavePool(); // before the answer: who has it may come again
    inFlight->finishRequest_(std::move(response));
}
