// What the HTTP server costs where files pass through it: uploads to and downloads from the file-drop example against a
// plain loop of read and write. Both servers have one processor, the client the other one.
//
//   file_load FILE_DROP PLAIN_TRANSFER [--seconds S] [--rounds N] [--mib SIZE] [--directory D]
//
// The two take turns; the figures are the medians of the rounds: the rate, and the processor time that the server's
// main thread used for a GiB, which other work on the machine disturbs less. Everything goes over loopback, is bounded
// and stops by itself. The files are in a directory of their own below D, the directory for temporary files without it.

#include "ChildProcess.h"
#include "support/Loopback.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sched.h>
#include <string>
#include <string_view>
#include <sys/time.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr int kClientCpu = 0;
constexpr int kServerCpu = 1;
constexpr std::size_t kMiB = 1024 * 1024;

double seconds = 2.0;
int rounds = 5;
std::size_t mib = 256;
long long failures = 0;
std::string block; // one MiB that goes out again and again

/// A blocking connection to a loopback port.
class Connection {
public:
    explicit Connection(unsigned short port) : fd_(connectToLoopback(port)) {
        const timeval limit = {30, 0}; // a server that hangs does not hang this program
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    }
    ~Connection() { ::close(fd_); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void send(std::string_view bytes) {
        while (isGood_ && !bytes.empty()) {
            const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            isGood_ = sent > 0;
            bytes.remove_prefix(isGood_ ? static_cast<std::size_t>(sent) : 0);
        }
    }
    void sendFile() {
        for (std::size_t i = 0; i < mib; ++i)
            send(block);
    }
    void endOfInput() { ::shutdown(fd_, SHUT_WR); }
    /// Reads to the end of the stream: the first bytes go to `*head`, all are counted.
    std::size_t receiveAll(std::string* head) {
        static char buffer[256 * 1024];
        std::size_t byteCount = 0;
        for (;;) {
            const ssize_t got = ::recv(fd_, buffer, sizeof(buffer), 0);
            if (got <= 0)
                return byteCount;
            if (byteCount == 0)
                head->assign(buffer, std::min<std::size_t>(static_cast<std::size_t>(got), 1024));
            byteCount += static_cast<std::size_t>(got);
        }
    }

private:
    const int fd_;
    bool isGood_ = true;
};

void expect(bool isRight, const char* what) {
    if (isRight)
        return;
    ++failures;
    std::fprintf(stderr, "wrong: %s\n", what);
}

void uploadPlain(unsigned short port) {
    Connection connection(port);
    connection.send("u");
    connection.sendFile();
    connection.endOfInput();
    std::string answer;
    connection.receiveAll(&answer);
    expect(answer == "u", "plain upload");
}

void downloadPlain(unsigned short port) {
    Connection connection(port);
    connection.send("d");
    std::string head;
    expect(connection.receiveAll(&head) == mib * kMiB, "plain download");
}

void uploadHttp(unsigned short port) {
    const std::string before = "--bOuNdArY\r\ncontent-disposition: form-data; name=\"f\"; filename=\"up\"\r\n\r\n";
    const std::string behind = "\r\n--bOuNdArY--\r\n";
    Connection connection(port);
    connection.send(
        "POST /files HTTP/1.1\r\nhost: localhost\r\nconnection: close\r\ncontent-type: multipart/form-data; "
        "boundary=bOuNdArY\r\ncontent-length: " +
        std::to_string(before.size() + mib * kMiB + behind.size()) + "\r\n\r\n" + before);
    connection.sendFile();
    connection.send(behind);
    std::string head;
    connection.receiveAll(&head);
    expect(head.starts_with("HTTP/1.1 201 "), "upload");
}

void downloadHttp(unsigned short port) {
    Connection connection(port);
    connection.send("GET /files/file HTTP/1.1\r\nhost: localhost\r\nconnection: close\r\n\r\n");
    std::string head;
    const std::size_t byteCount = connection.receiveAll(&head);
    expect(head.starts_with("HTTP/1.1 200 ") && byteCount == head.find("\r\n\r\n") + 4 + mib * kMiB, "download");
}

struct Figures {
    double mibPerSecond;
    double cpuMsPerGib;
};

/// Transfers one after the other; `undo` is not timed.
Figures measure(const ChildProcess& server, const std::function<void()>& transfer, const std::function<void()>& undo) {
    using Clock = std::chrono::steady_clock;
    std::chrono::duration<double> spent(0);
    std::size_t transferCount = 0;
    const long long cpuBeforeNs = server.cpuNs();
    do {
        const auto start = Clock::now();
        transfer();
        spent += Clock::now() - start;
        ++transferCount;
        undo();
    } while (spent.count() < seconds && failures == 0);
    const auto sumMib = static_cast<double>(transferCount * mib);
    return {sumMib / spent.count(), static_cast<double>(server.cpuNs() - cpuBeforeNs) / 1e6 / sumMib * 1024};
}

double median(std::vector<Figures> all, double Figures::*field) {
    std::sort(all.begin(), all.end(), [&](const Figures& a, const Figures& b) { return a.*field < b.*field; });
    return all[all.size() / 2].*field;
}

void compare(const char* what, const std::function<Figures()>& plain, const std::function<Figures()>& http) {
    std::vector<Figures> ofPlain;
    std::vector<Figures> ofHttp;
    for (int round = 0; round < rounds && failures == 0; ++round) {
        ofPlain.push_back(plain());
        ofHttp.push_back(http());
    }
    const double plainRate = median(ofPlain, &Figures::mibPerSecond);
    const double httpRate = median(ofHttp, &Figures::mibPerSecond);
    const double plainCpu = median(ofPlain, &Figures::cpuMsPerGib);
    const double httpCpu = median(ofHttp, &Figures::cpuMsPerGib);
    std::printf("%-9s plain loop %6.0f MiB/s %5.0f ms/GiB   file-drop %6.0f MiB/s %5.0f ms/GiB   "
                "ratio %.2f, by processor time %.2f\n",
                what, plainRate, plainCpu, httpRate, httpCpu, httpRate / plainRate, plainCpu / httpCpu);
    std::fflush(stdout);
}

fs::path parse(int argc, char** argv) {
    fs::path parent = fs::temp_directory_path();
    for (int i = 3; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        if (name == "--seconds")
            seconds = std::atof(argv[i + 1]);
        else if (name == "--rounds")
            rounds = std::max(1, std::atoi(argv[i + 1]));
        else if (name == "--mib")
            mib = static_cast<std::size_t>(std::clamp(std::atoi(argv[i + 1]), 1, 4000));
        else if (name == "--directory")
            parent = argv[i + 1];
    }
    std::string directory = (parent / "file-load-XXXXXX").string();
    if (::mkdtemp(directory.data()) == nullptr)
        std::exit(1);
    return directory;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: file_load FILE_DROP PLAIN_TRANSFER [--seconds S] [--rounds N] [--mib SIZE] "
                             "[--directory D]\n");
        return 2;
    }
    const fs::path directory = parse(argc, argv);
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(kClientCpu, &cpus);
    ::sched_setaffinity(0, sizeof(cpus), &cpus);
    unsigned state = 1; // bytes of every kind, so that line ends and hyphens come as often as they do in real files
    for (std::size_t i = 0; i < kMiB; ++i)
        block += static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    {
        std::ofstream file(directory / "file", std::ios::binary);
        for (std::size_t i = 0; i < mib; ++i)
            file << block;
    }
    {
        const ChildProcess plain({argv[2], directory.string()}, "listening on port", kServerCpu);
        const ChildProcess drop({argv[1], "--port=0", "--directory=" + directory.string()}, "listening on", kServerCpu);
        const unsigned short plainPort = plain.announcedPort();
        const unsigned short port = drop.announcedPort();
        const auto remove = [&](const char* name) { return [path = directory / name] { fs::remove(path); }; };
        const auto nothing = [] {};
        compare(
            "upload",
            [&] {
                return measure(
                    plain, [&] { uploadPlain(plainPort); }, remove("plain"));
            },
            [&] {
                return measure(
                    drop, [&] { uploadHttp(port); }, remove("up"));
            });
        compare(
            "download",
            [&] {
                return measure(
                    plain, [&] { downloadPlain(plainPort); }, nothing);
            },
            [&] {
                return measure(
                    drop, [&] { downloadHttp(port); }, nothing);
            });
        std::printf("file-drop: %ld KiB resident at the end, %lld failures\n", drop.residentKib(), failures);
    }
    std::error_code error;
    fs::remove_all(directory, error);
    return failures == 0 ? 0 : 1;
}
