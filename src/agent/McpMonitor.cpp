#include "agent/McpMonitor.h"

#include <iostream>

bool McpMonitor::start() {
    if (options_.accessLogPath.isEmpty())
        return true;
    accessLog_ = std::make_shared<McpAccessLog>(options_.accessLogPath, options_.accessLogBytes);
    ZnString problem;
    if (accessLog_->start(&problem))
        return true;
    std::cerr << "[McpBridge] access log " << options_.accessLogPath << ": " << problem << std::endl;
    return false;
}

std::vector<std::shared_ptr<McpObserver>> McpMonitor::observers() const {
    std::vector<std::shared_ptr<McpObserver>> observers;
    if (accessLog_)
        observers.push_back(accessLog_);
    return observers;
}

void McpMonitor::stop() {
    if (accessLog_)
        accessLog_->stop();
}
