// The practical limit of a machine for files over a connection: a loop of read and write, one connection after the
// other. No protocol but one letter, no checks, no limits.
//
//   plain_transfer DIRECTORY     "u" bytes, end of stream: stores them in DIRECTORY/plain and answers "u"
//                                "d": sends DIRECTORY/file

#include "support/Loopback.h"

#include <cstdio>
#include <fcntl.h>
#include <string>

namespace {

constexpr std::size_t kBlockBytes = 64 * 1024;
char block[kBlockBytes];

/// False: an error.
bool copy(int from, int to) {
    for (;;) {
        const ssize_t got = ::read(from, block, kBlockBytes);
        if (got <= 0)
            return got == 0;
        for (ssize_t written = 0; written < got;) {
            const ssize_t taken = ::write(to, block + written, static_cast<std::size_t>(got - written));
            if (taken <= 0)
                return false;
            written += taken;
        }
    }
}

void serve(int connection, const std::string& directory) {
    char kind = 0;
    if (::read(connection, &kind, 1) != 1)
        return;
    if (kind == 'u') {
        const int file = ::open((directory + "/plain").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        const bool isStored = copy(connection, file);
        ::close(file);
        if (isStored && ::write(connection, "u", 1) == 1)
            return;
    } else {
        const int file = ::open((directory + "/file").c_str(), O_RDONLY | O_CLOEXEC);
        copy(file, connection);
        ::close(file);
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;
    unsigned short port = 0;
    const int listener = listenOnLoopback(&port, 16);
    std::printf("listening on port %d\n", port);
    std::fflush(stdout);
    for (;;) {
        const int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0)
            return 1;
        serve(connection, argv[1]);
        ::close(connection);
    }
}
