#pragma once

#include "core/io/http/ZnHttpServer.h"

#include <memory>
#include <vector>

class ZnHttpInFlight_;

/// One request with the thread pool. Holds all that it needs: the server may end meanwhile.
///
/// Thread: one of the pool's; a job that the pool drops answers where it is destroyed.
class ZnHttpPoolJob_ {
public:
    using FilterList = std::vector<ZnHttpServer::RequestFilter>;

    /// Counted already, by enterPool. `filters` may be null.
    ZnHttpPoolJob_(std::shared_ptr<ZnHttpInFlight_> inFlight, std::shared_ptr<const ZnHttpRequest> request,
                   std::shared_ptr<const FilterList> filters, ZnHttpRouter::Target target);
    ZnHttpPoolJob_(ZnHttpPoolJob_&& other) = default;
    ZnHttpPoolJob_& operator=(ZnHttpPoolJob_&&) = delete;
    ~ZnHttpPoolJob_();

    void operator()();

private:
    void end_(ZnHttpResponse response);

    std::shared_ptr<ZnHttpInFlight_> inFlight_; // null when the job has ended
    std::shared_ptr<const ZnHttpRequest> request_;
    std::shared_ptr<const FilterList> filters_;
    ZnHttpRouter::Target target_;
};
