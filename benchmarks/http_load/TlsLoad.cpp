// What TLS costs: the agent with TLS against the agent without, its handshakes against those of OpenSSL's own server,
// and bridge.rpc to an https upstream with trusted roots that are kept against roots that are read for every call, and
// over kept connections against a new one per call.
//
//   tls_load AGENT ECHO_SERVICE [--seconds S] [--rounds N]
//
// The two sides of a comparison take turns; the figures are the medians of the rounds. Everything goes over loopback,
// is bounded and stops by itself. Needs the openssl program.

#include "ChildProcess.h"
#include "LoadClient.h"
#include "McpRequests.h"
#include "support/Loopback.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sched.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr int kServerCpu = 1;
constexpr int kConnections = 64;
constexpr int kCallsInFlight = 4;

double seconds = 2.0;
int rounds = 3;
long long failures = 0;

/// A directory with a certificate of its own authority for localhost, and a bundle: the system's and that one.
class TlsDirectory {
public:
    TlsDirectory() {
        std::string name = (fs::temp_directory_path() / "tls-load-XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr)
            std::exit(1);
        path_ = name;
        const std::string command =
            "cd " + name +
            " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2"
            " -subj /CN=localhost -addext subjectAltName=DNS:localhost,IP:127.0.0.1"
            " -keyout key.pem -out cert.pem 2>/dev/null"
            " && cat /etc/ssl/certs/ca-certificates.crt cert.pem >bundle.pem 2>/dev/null;"
            " cat cert.pem >>bundle.pem; test -s cert.pem";
        if (std::system(command.c_str()) != 0) {
            std::fprintf(stderr, "the openssl program made no certificate\n");
            std::exit(1);
        }
    }
    ~TlsDirectory() {
        std::error_code error;
        fs::remove_all(path_, error);
    }
    std::string file(const char* name) const { return (path_ / name).string(); }

private:
    fs::path path_;
};

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// Both by turns; prints the medians and the ratio of the second to the first.
void compare(const char* what, const char* firstName, const std::function<double()>& first, const char* secondName,
             const std::function<double()>& second) {
    std::vector<double> firstRates;
    std::vector<double> secondRates;
    for (int round = 0; round < rounds; ++round) {
        firstRates.push_back(first());
        secondRates.push_back(second());
    }
    std::printf("%-22s %-18s %8.0f /s   %-18s %8.0f /s   ratio %.2f\n", what, firstName, median(firstRates), secondName,
                median(secondRates), median(secondRates) / median(firstRates));
    std::fflush(stdout);
}

double rate(const LoadResult& result) {
    failures += result.failureCount;
    return result.requestsPerSecond;
}

double loadPing(unsigned short port, bool overTls) {
    const std::string ping = post(R"({"jsonrpc":"2.0","id":1,"method":"ping"})", initialize(port, overTls));
    return rate(runLoad(port, {ping}, R"("result": {})", kConnections, seconds, overTls));
}

double loadRpc(unsigned short port, const std::string& service = "up") {
    const std::string rpc =
        post(R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"bridge.rpc","arguments":)"
             R"({"serviceId":")" +
                 service + R"(","request":{"jsonrpc":"2.0","id":1,"method":"tools/list"}}}})",
             initialize(port));
    return rate(runLoad(port, {rpc}, "transportOk\\\": true", kCallsInFlight, seconds));
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: tls_load AGENT ECHO_SERVICE [--seconds S] [--rounds N]\n");
        return 2;
    }
    const std::string agentProgram = argv[1];
    for (int i = 3; i + 1 < argc; i += 2) {
        if (std::string(argv[i]) == "--seconds")
            seconds = std::atof(argv[i + 1]);
        else if (std::string(argv[i]) == "--rounds")
            rounds = std::max(1, std::atoi(argv[i + 1]));
    }
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(0, &cpus);
    ::sched_setaffinity(0, sizeof(cpus), &cpus);

    const TlsDirectory tls;
    const std::string certificate = tls.file("cert.pem");
    const std::string key = tls.file("key.pem");
    const unsigned short upstreamPort = freeLoopbackPort();
    std::ofstream(tls.file("services.json"))
        << R"({"services": [{"id": "up", "endpoint": "https://localhost:)" << upstreamPort
        << R"(/mcp"},{"id": "kept", "keepAlive": true, "endpoint": "https://localhost:)" << upstreamPort
        << R"(/mcp"}]})";
    ::setenv("ZN_SSL_CA_FILE", tls.file("bundle.pem").c_str(), 1);

    const ChildProcess upstream(
        {argv[2], "--port=" + std::to_string(upstreamPort), "--tls_cert_path=" + certificate, "--tls_key_path=" + key},
        "listening on", 0);
    const unsigned short plainPort = freeLoopbackPort();
    const ChildProcess plainAgent(
        {agentProgram, "--port=" + std::to_string(plainPort), "--services_file=" + tls.file("services.json")},
        "listening on", kServerCpu);
    const unsigned short tlsPort = freeLoopbackPort();
    const ChildProcess tlsAgent({agentProgram, "--port=" + std::to_string(tlsPort),
                                 "--services_file=", "--tls_cert_path=" + certificate, "--tls_key_path=" + key},
                                "listening on", kServerCpu);
    const unsigned short opensslPort = freeLoopbackPort();
    const ChildProcess openssl({"/usr/bin/env", "openssl", "s_server", "-4", "-www", "-cert", certificate, "-key", key,
                                "-accept", std::to_string(opensslPort)},
                               "ACCEPT", kServerCpu);
    compare(
        "ping, 64 connections", "plain", [&] { return loadPing(plainPort, false); }, "TLS",
        [&] { return loadPing(tlsPort, true); });
    compare(
        "full handshakes", "openssl s_server", [&] { return runHandshakes(opensslPort, seconds); }, "agent",
        [&] { return runHandshakes(tlsPort, seconds); });
    // Roots from a file that has just changed are not kept: it could change again under the same time stamp.
    compare(
        "bridge.rpc to https", "roots read anew",
        [&] {
            std::atomic<bool> isOver{false};
            std::thread changes([&] {
                for (; !isOver; ::usleep(100'000))
                    fs::last_write_time(tls.file("bundle.pem"), fs::file_time_type::clock::now());
            });
            const double result = loadRpc(plainPort);
            isOver = true;
            changes.join();
            return result;
        },
        "roots kept",
        [&] {
            ::usleep(2'200'000);
            return loadRpc(plainPort);
        });
    compare(
        "bridge.rpc to https", "anew", [&] { return loadRpc(plainPort); }, "kept",
        [&] { return loadRpc(plainPort, "kept"); });
    std::printf("agent with TLS: %ld KiB resident, %lld failures\n", tlsAgent.residentKib(), failures);
    return failures == 0 ? 0 : 1;
}
