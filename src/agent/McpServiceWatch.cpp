#include "agent/McpServiceWatch.h"

#include <utility>

void McpServiceWatch::start() {
    known_ = seen_ = filesNow_();
    timer_.connect(&ZnTimer::timeout, &timer_, [weak = weak_from_this()] {
        if (const std::shared_ptr<McpServiceWatch> self = weak.lock())
            self->look_();
    });
    timer_.start(lookMs_);
}

McpServiceWatch::Files_ McpServiceWatch::filesNow_() const {
    Files_ files;
    files.insert(path_, ZnFileIdentity::of(path_));
    for (const ZnString& path : services_->secretFiles())
        files.insert(path, ZnFileIdentity::of(path));
    return files;
}

void McpServiceWatch::look_() {
    if (std::exchange(isLooking_, true))
        return;
    const auto now = std::make_shared<Files_>();
    const auto look = [self = shared_from_this(), now] { *now = self->filesNow_(); };
    if (workers_->await(look) && *now != known_ && *now == std::exchange(seen_, *now)) {
        const auto readAgain = [self = shared_from_this()] { self->services_->reload(self->path_, self->how_); };
        if (workers_->await(readAgain) && workers_->await(look)) // the new list may name other files
            known_ = *now;
    }
    isLooking_ = false;
}
