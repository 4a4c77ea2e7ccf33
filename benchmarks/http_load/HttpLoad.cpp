// Loads the agent and the practical limit of the machine in one go, and prints both with their ratio.
//
//   http_load AGENT RESPONDER [--seconds S] [--rounds N] [--connections A,B,...] [--idle N] [--state_dir DIR]
//
// With a state directory it is the agent without and the agent with it that are compared. The median of the rounds'
// ratios is printed too: a round is the fairer comparison.
// The programs take turns, so that what else the machine does falls on both; the figures are the medians of the
// rounds. Everything goes over loopback, is bounded and stops by itself.

#include "ChildProcess.h"
#include "LoadClient.h"
#include "McpRequests.h"
#include "support/Loopback.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kLoadCpu = 0;
constexpr int kServerCpu = 1;

constexpr int kNoBound = 1 << 30;
constexpr int kCallsInFlight = 400;    // the agent refuses more at a time
constexpr int kUpstreamAddresses = 16; // a new connection per call uses up the ports towards one address

struct Options {
    std::string agent;
    std::string responder;
    double seconds = 2.0;
    int rounds = 3;
    std::vector<int> connections = {1, 32, 64, 1000};
    int idleConnections = 0;
    std::string stateDirectory; // empty: none
};

/// A program under load.
struct Side {
    const char* name;
    const ChildProcess& process;
    unsigned short port;
    std::vector<std::string> requests;
    std::string expectedText;
};

struct Sample {
    LoadResult load;
    double cpuUs = 0.0; // processor time of the server per request
};

Options parse(int argc, char** argv) {
    Options options;
    if (argc < 3) {
        std::fprintf(stderr,
                     "usage: http_load AGENT RESPONDER [--seconds S] [--rounds N] [--connections A,B] [--idle N] "
                     "[--state_dir DIR]\n");
        std::exit(2);
    }
    options.agent = argv[1];
    options.responder = argv[2];
    for (int i = 3; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        if (name == "--seconds")
            options.seconds = std::atof(argv[i + 1]);
        else if (name == "--rounds")
            options.rounds = std::max(1, std::atoi(argv[i + 1]));
        else if (name == "--state_dir")
            options.stateDirectory = argv[i + 1];
        else if (name == "--idle")
            options.idleConnections = std::atoi(argv[i + 1]);
        else if (name == "--connections") {
            options.connections.clear();
            std::stringstream list(argv[i + 1]);
            for (std::string count; std::getline(list, count, ',');)
                options.connections.push_back(std::atoi(count.c_str()));
        }
    }
    return options;
}

/// The same upstream under many loopback addresses.
void writeServices(const char* path, unsigned short upstreamPort) {
    std::ofstream file(path);
    file << R"({"services": [)";
    for (int i = 0; i < kUpstreamAddresses; ++i)
        file << (i == 0 ? "" : ",") << R"({"id": "up)" << i << R"(", "endpoint": "http://127.0.0.)" << i + 2 << ":"
             << upstreamPort << R"(/mcp"})";
    file << "]}";
}

Sample measure(const Side& side, int connectionCount, double seconds) {
    const long long cpuBefore = side.process.cpuNs();
    Sample sample;
    sample.load = runLoad(side.port, side.requests, side.expectedText, connectionCount, seconds);
    if (sample.load.requestCount > 0)
        sample.cpuUs = static_cast<double>(side.process.cpuNs() - cpuBefore) / 1000.0 /
                       static_cast<double>(sample.load.requestCount);
    return sample;
}

const Sample& median(std::vector<Sample>& samples) {
    std::sort(samples.begin(), samples.end(), [](const Sample& left, const Sample& right) {
        return left.load.requestsPerSecond < right.load.requestsPerSecond;
    });
    return samples[samples.size() / 2];
}

void print(const char* what, const char* program, int connections, const Sample& sample) {
    std::printf("%-11s %-6s %5d %10.0f req/s  p50 %8.0f us  p99 %8.0f us  max %8.0f us  cpu %6.2f us/req", what,
                program, connections, sample.load.requestsPerSecond, sample.load.p50Us, sample.load.p99Us,
                sample.load.maxUs, sample.cpuUs);
}

/// One table: the two sides by turns, for every number of connections. Returns the number of failures of the second.
long long compare(const char* what, const Options& options, const Side& left, const Side& right, int maxConnections) {
    long long failures = 0;
    for (const int connections : options.connections) {
        if (connections > maxConnections) {
            std::printf("%-11s        %5d above the bound of calls in flight, left out\n", what, connections);
            continue;
        }
        std::vector<Sample> leftSamples;
        std::vector<Sample> rightSamples;
        std::vector<double> ratios;
        for (int round = 0; round < options.rounds; ++round) {
            leftSamples.push_back(measure(left, connections, options.seconds));
            rightSamples.push_back(measure(right, connections, options.seconds));
            failures += rightSamples.back().load.failureCount;
            ratios.push_back(rightSamples.back().load.requestsPerSecond / leftSamples.back().load.requestsPerSecond);
        }
        const Sample leftMedian = median(leftSamples);
        const Sample rightMedian = median(rightSamples);
        std::sort(ratios.begin(), ratios.end());
        print(what, left.name, connections, leftMedian);
        std::printf("\n");
        print(what, right.name, connections, rightMedian);
        std::printf("  ratio %.2f  rounds %.3f\n",
                    rightMedian.load.requestsPerSecond / leftMedian.load.requestsPerSecond, ratios[ratios.size() / 2]);
        std::fflush(stdout);
    }
    return failures;
}

/// Forwarding over a new connection per call and over kept ones, by the agent and by the limit, and calls that go to
/// the upstream itself: all by turns. The ratios are those that kept connections are judged by.
long long compareForwarding(const Options& options, const Side& direct, const Side (&sides)[4]) {
    long long failures = 0;
    for (const int connections : options.connections) {
        if (connections > kCallsInFlight) {
            std::printf("%-11s        %5d above the bound of calls in flight, left out\n", "bridge.rpc", connections);
            continue;
        }
        std::vector<Sample> directSamples;
        std::vector<Sample> samples[4];
        for (int round = 0; round < options.rounds; ++round) {
            directSamples.push_back(measure(direct, connections, options.seconds));
            for (std::size_t i = 0; i < 4; ++i) {
                samples[i].push_back(measure(sides[i], connections, options.seconds));
                failures += samples[i].back().load.failureCount;
            }
        }
        double rates[4];
        double addedUs[4];
        const double directUs = median(directSamples).load.p50Us;
        for (std::size_t i = 0; i < 4; ++i) {
            const Sample sample = median(samples[i]);
            rates[i] = sample.load.requestsPerSecond;
            addedUs[i] = sample.load.p50Us - directUs;
            print("bridge.rpc", sides[i].name, connections, sample);
            std::printf("  added p50 %6.0f us\n", addedUs[i]);
        }
        std::printf(
            "%-18s %5d agent/limit %.2f  kept agent/limit %.2f  kept agent/kept limit %.2f  kept/agent: rate %.2f, "
            "added p50 %.2f\n",
            "bridge.rpc ratios", connections, rates[1] / rates[0], rates[3] / rates[0], rates[3] / rates[2],
            rates[3] / rates[1], addedUs[3] / addedUs[1]);
        std::fflush(stdout);
    }
    return failures;
}

unsigned short listeningPort(const std::vector<std::string>& command, std::unique_ptr<ChildProcess>& process, int cpu) {
    process = std::make_unique<ChildProcess>(command, "listening on port", cpu);
    return process->announcedPort();
}

Side pingOf(const char* name, const ChildProcess& agent, unsigned short port) {
    return {
        name, agent, port, {post(R"({"jsonrpc":"2.0","id":1,"method":"ping"})", initialize(port))}, R"("result": {})"};
}

/// Calls to every upstream in turn.
Side rpcOf(const char* name, const ChildProcess& agent, unsigned short port) {
    Side side = {name, agent, port, {}, "transportOk\\\": true"};
    const std::string sessionId = initialize(port);
    for (int i = 0; i < kUpstreamAddresses; ++i)
        side.requests.push_back(
            post(R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"bridge.rpc","arguments":)"
                 R"({"serviceId":"up)" +
                     std::to_string(i) + R"(","request":{"jsonrpc":"2.0","id":1,"method":"tools/list"}}}})",
                 sessionId));
    return side;
}

} // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    rlimit descriptors = {};
    ::getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = descriptors.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &descriptors);
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(kLoadCpu, &cpus);
    ::sched_setaffinity(0, sizeof(cpus), &cpus);

    const std::string upstreamBody = R"({"id": 1,"jsonrpc": "2.0","result": {"tools": []}})";
    const std::string upstreamAnswer =
        "HTTP/1.1 200 OK\r\ncontent-type: application/json\r\ncontent-length: " + std::to_string(upstreamBody.size()) +
        "\r\n\r\n" + upstreamBody;
    std::unique_ptr<ChildProcess> upstream;
    const unsigned short upstreamPort = listeningPort({options.responder, upstreamAnswer}, upstream, kLoadCpu);

    char servicesFile[] = "http_load_services_XXXXXX";
    const int servicesFd = ::mkstemp(servicesFile);
    writeServices(servicesFile, upstreamPort);
    ::close(servicesFd);
    const unsigned short agentPort = freeLoopbackPort();
    const std::string servicesOption = std::string("--services_file=") + servicesFile;
    const ChildProcess agent({options.agent, "--port=" + std::to_string(agentPort), servicesOption}, "listening on",
                             kServerCpu);
    std::printf("agent: ready after %.1f ms, %ld KiB resident\n", agent.readyMs(), agent.residentKib());
    const Side agentPing = pingOf("agent", agent, agentPort);
    const Side agentRpc = rpcOf("agent", agent, agentPort);
    if (!options.stateDirectory.empty()) {
        const unsigned short keepingPort = freeLoopbackPort();
        const ChildProcess keeping({options.agent, "--port=" + std::to_string(keepingPort), servicesOption,
                                    "--state_dir=" + options.stateDirectory},
                                   "listening on", kServerCpu);
        ::unlink(servicesFile);
        long long failures = compare("ping", options, agentPing, pingOf("state", keeping, keepingPort), kNoBound);
        failures += compare("bridge.rpc", options, agentRpc, rpcOf("state", keeping, keepingPort), kCallsInFlight);
        std::printf("agent: %ld KiB resident at the end, with the state %ld KiB, %lld failures\n", agent.residentKib(),
                    keeping.residentKib(), failures);
        return failures == 0 ? 0 : 1;
    }
    const unsigned short keptPort = freeLoopbackPort();
    const ChildProcess keptAgent(
        {options.agent, "--port=" + std::to_string(keptPort), servicesOption, "--mcp_keep_alive=true"}, "listening on",
        kServerCpu);
    ::unlink(servicesFile);

    const std::string forwarded = "POST /mcp HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(upstreamPort) +
                                  "\r\nAccept: application/json\r\nUser-Agent: forwarder\r\n"
                                  "Content-Type: application/json\r\nContent-Length: 46\r\n\r\n"
                                  R"({"id": 1,"jsonrpc": 2,"method": "tools/list"} )";
    std::unique_ptr<ChildProcess> limit;
    std::unique_ptr<ChildProcess> forwarder;
    const unsigned short limitPort =
        listeningPort({options.responder, askOnce(agentPort, agentPing.requests[0])}, limit, kServerCpu);
    const unsigned short forwarderPort = listeningPort(
        {options.responder, askOnce(agentPort, agentRpc.requests[0]), std::to_string(upstreamPort), forwarded},
        forwarder, kServerCpu);
    const Side limitPing = {"limit", *limit, limitPort, agentPing.requests, ""};
    std::unique_ptr<ChildProcess> keeper;
    const unsigned short keeperPort = listeningPort(
        {options.responder, askOnce(agentPort, agentRpc.requests[0]), std::to_string(upstreamPort), forwarded, "keep"},
        keeper, kServerCpu);
    const Side direct = {"direct", *upstream, upstreamPort, {forwarded}, ""};
    const Side forwarding[] = {{"limit", *forwarder, forwarderPort, agentRpc.requests, ""},
                               agentRpc,
                               {"keptli", *keeper, keeperPort, agentRpc.requests, ""},
                               rpcOf("kept", keptAgent, keptPort)};

    long long failures = compare("ping", options, limitPing, agentPing, kNoBound);
    failures += compareForwarding(options, direct, forwarding);
    if (options.idleConnections > 0) {
        const IdleConnections idleLimit(limitPort, options.idleConnections);
        const IdleConnections idleAgent(agentPort, options.idleConnections);
        std::printf("with %d idle connections on each:\n", options.idleConnections);
        failures += compare("ping", options, limitPing, agentPing, kNoBound);
    }
    std::printf("agent: %ld KiB resident at the end, %lld failures\n", agent.residentKib(), failures);
    return failures == 0 ? 0 : 1;
}
