#pragma once

#include "support/Loopback.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

/// A peer on 127.0.0.1 that plays a script on every connection, each on a thread of its own. Its end closes every
/// connection and waits for the scripts.
class ScriptedPeer {
public:
    class Connection {
    public:
        explicit Connection(int descriptor) : descriptor_(descriptor) {}

        /// One request with its counted body; empty when the client closed first.
        std::string receiveRequest() { return receiveMessage(descriptor_); }
        /// Waits until the system has all bytes, or the connection has ended.
        void send(const std::string& bytes) { ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
        void waitForClose() { receiveAll(descriptor_); }
        /// The script's end then resets the connection.
        void resetAtEnd() { resetOnClose(descriptor_); }

    private:
        int descriptor_;
    };
    using Script = std::function<void(Connection&)>;

    explicit ScriptedPeer(Script script)
        : script_(std::move(script)),
          listenDescriptor_(listenOnLoopback(&port_, 1024)),
          acceptThread_([this] { acceptAll_(); }) {}
    ~ScriptedPeer() {
        ::shutdown(listenDescriptor_, SHUT_RDWR);
        acceptThread_.join();
        ::close(listenDescriptor_);
        {
            std::lock_guard<std::mutex> guard(mutex_);
            for (const int descriptor : openDescriptors_)
                ::shutdown(descriptor, SHUT_RDWR);
        }
        for (std::thread& thread : threads_)
            thread.join();
    }

    unsigned short port() const { return port_; }
    std::string url(const std::string& path = "/mcp") const {
        return "http://127.0.0.1:" + std::to_string(port_) + path;
    }
    int connectionCount() const { return connectionCount_.load(); }

    /// A script that answers every request with the same bytes and closes.
    static Script answering(const std::string& response) {
        return [response](Connection& connection) {
            connection.receiveRequest();
            connection.send(response);
        };
    }
    /// The same, but the client has to close.
    static Script answeringAndStaying(const std::string& response) {
        return [response](Connection& connection) {
            connection.receiveRequest();
            connection.send(response);
            connection.waitForClose();
        };
    }
    /// A script that never answers.
    static Script silent() { return &Connection::waitForClose; }

private:
    void acceptAll_() {
        for (;;) {
            const int descriptor = ::accept4(listenDescriptor_, nullptr, nullptr, SOCK_CLOEXEC);
            if (descriptor < 0)
                return;
            ++connectionCount_;
            std::lock_guard<std::mutex> guard(mutex_);
            openDescriptors_.push_back(descriptor);
            threads_.emplace_back([this, descriptor] {
                Connection connection(descriptor);
                script_(connection);
                std::lock_guard<std::mutex> closeGuard(mutex_);
                std::erase(openDescriptors_, descriptor);
                ::close(descriptor);
            });
        }
    }

    const Script script_;
    unsigned short port_ = 0;
    const int listenDescriptor_;
    std::atomic<int> connectionCount_{0};
    std::mutex mutex_;
    std::vector<int> openDescriptors_; // guarded by mutex_
    std::vector<std::thread> threads_; // grown by acceptThread_ only
    std::thread acceptThread_;         // last: it uses the others
};
