#pragma once

#include <string>
#include <vector>

/// What one run of the load generator saw.
struct LoadResult {
    double requestsPerSecond = 0.0;
    double p50Us = 0.0;
    double p99Us = 0.0;
    double maxUs = 0.0;
    long long requestCount = 0;
    long long failureCount = 0; // answers that are not 200 with the expected text, and lost connections
};

/// Keeps `connectionCount` connections to a loopback port busy for `seconds`, each sending its next request when
/// the answer to the last has come; connection i sends request i modulo their number. Single-threaded, bounded,
/// stops by itself.
/// With `overTls` the connections are encrypted; certificates are not verified.
LoadResult runLoad(unsigned short port, const std::vector<std::string>& requests, const std::string& expectedText,
                   int connectionCount, double seconds, bool overTls = false);

/// Full TLS handshakes per second, one connection after the other for `seconds`.
double runHandshakes(unsigned short port, double seconds);

/// Connections that are opened and left idle until the object is destroyed.
class IdleConnections {
public:
    IdleConnections(unsigned short port, int count);
    ~IdleConnections();
    IdleConnections(const IdleConnections&) = delete;
    IdleConnections& operator=(const IdleConnections&) = delete;

private:
    int* fds_;
    int count_;
};

/// One request over a connection of its own; the whole answer, head and body.
std::string askOnce(unsigned short port, const std::string& request, bool overTls = false);
