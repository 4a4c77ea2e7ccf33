#pragma once

#include <chrono>
#include <condition_variable>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <new>
#include <set>
#include <string>

constexpr std::chrono::seconds kDeadline{20};

/// Holds background work at its sync points, or makes it fail there.
class Gates {
public:
    ~Gates() {
        const std::lock_guard lock(mutex_);
        isOver_ = true;
        condition_.notify_all();
    }
    void reach(const std::string& name) {
        std::unique_lock lock(mutex_);
        ++counts_[name];
        if (failures_[name] > 0) {
            --failures_[name];
            throw std::bad_alloc();
        }
        if (armed_.erase(name) == 0)
            return;
        held_.insert(name);
        condition_.notify_all();
        if (!condition_.wait_for(lock, kDeadline, [&] { return isOver_ || held_.count(name) == 0; })) {
            ADD_FAILURE() << "nobody lets go of " << name;
            held_.erase(name);
        }
    }
    /// The next that comes there.
    void hold(const std::string& name) {
        const std::lock_guard lock(mutex_);
        armed_.insert(name);
    }
    void fail(const std::string& name, int count) {
        const std::lock_guard lock(mutex_);
        failures_[name] = count;
    }
    void letGo(const std::string& name) {
        const std::lock_guard lock(mutex_);
        EXPECT_EQ(held_.erase(name), 1U) << name;
        condition_.notify_all();
    }
    bool isHeld(const std::string& name, std::chrono::milliseconds timeout = kDeadline) {
        std::unique_lock lock(mutex_);
        return condition_.wait_for(lock, timeout, [&] { return held_.count(name) != 0; });
    }
    int countOf(const std::string& name) {
        const std::lock_guard lock(mutex_);
        return counts_[name];
    }

private:
    std::mutex mutex_;
    std::condition_variable condition_;
    bool isOver_ = false;
    std::map<std::string, int> counts_, failures_;
    std::set<std::string> armed_, held_;
};
