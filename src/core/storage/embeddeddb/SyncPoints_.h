#pragma once

#include <functional>
#include <string_view>

namespace znEmbeddedDbDetail {

/// Named places in the background work of a store, at which a test can hold it and do something else first.
///
/// Thread: set while no store is open; reached on the threads of the background work, without a lock of the store.
class SyncPoints_ {
public:
    void setHandler(std::function<void(std::string_view name)> handler) { handler_ = std::move(handler); }
    void reach(std::string_view name) const {
        if (handler_)
            handler_(name);
    }

private:
    std::function<void(std::string_view)> handler_;
};

} // namespace znEmbeddedDbDetail
