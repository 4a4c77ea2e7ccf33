#pragma once

#include "core/types/ZnString.h"

#include <string_view>

/// The TCP peer of the log's network sink.
///
/// Thread: one at a time; the logger holds its write lock around every call. Every call may block.
/// Owner: the logger, by value. Never logs, since the logger is what calls it.
class ZnLogPeer {
public:
    ZnLogPeer() = default;
    ~ZnLogPeer() { close(); }
    ZnLogPeer(const ZnLogPeer&) = delete;
    ZnLogPeer& operator=(const ZnLogPeer&) = delete;

    bool isConnected() const noexcept { return socket_ != kNoSocket_; }
    /// Tries the addresses of `host` in order until one connects. Closes an earlier connection first.
    bool connect(const ZnString& host, unsigned short port);
    /// Sends everything, or closes the connection and returns false.
    bool send(std::string_view bytes) noexcept;
    void close() noexcept;

private:
    static constexpr int kNoSocket_ = -1;

    int socket_ = kNoSocket_;
};
