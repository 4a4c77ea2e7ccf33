#pragma once

/// What can be set on a ZnThreadPool; its setters say what the values mean.
struct ZnThreadPoolSettings {
    int maxThreadCount = 1;
    int maxQueuedTaskCount = 0;
    int expiryTimeoutMs = 30000;
    int stackSize = 0; // bytes
    int priority = 3;
    int priorityHint = 0;
    int reservedThreadCount = 0;
};
