#pragma once

#include "agent/McpObserver.h"

#include <memory>
#include <utility>
#include <vector>

/// Tells several observers what one is told.
///
/// Thread: as for each of them. Owner: shared by the agent and its dispatcher.
class McpObservers final : public McpObserver {
public:
    /// Before the first record.
    void add(std::shared_ptr<McpObserver> observer) { observers_.push_back(std::move(observer)); }

    void onRequest(const McpRequestRecord& record) override {
        for (const std::shared_ptr<McpObserver>& observer : observers_)
            observer->onRequest(record);
    }
    void onCall(const McpCallRecord& record) override {
        for (const std::shared_ptr<McpObserver>& observer : observers_)
            observer->onCall(record);
    }

private:
    std::vector<std::shared_ptr<McpObserver>> observers_;
};
