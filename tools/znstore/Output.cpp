#include "Output.h"

#include "Escape.h"
#include "Exit.h"
#include "core/platform/ZnStorageFiles.h"

#include <cerrno>
#include <cstdio>

namespace znstore {

namespace {

constexpr std::size_t kPendingBytes = 64 * 1024;

} // namespace

void Output::write(std::string_view bytes) {
    pending_.append(bytes);
    if (pending_.size() >= kPendingBytes)
        flush();
}

void Output::writeEscaped(std::string_view bytes) {
    appendEscaped(&pending_, bytes);
    if (pending_.size() >= kPendingBytes)
        flush();
}

int Output::finish(int exitCode) {
    flush();
    if (error_ == 0 || error_ == EPIPE)
        return exitCode;
    return fail(kExitIo, "cannot write standard output: " + systemErrorText(error_));
}

void Output::flush() {
    if (error_ == 0) {
        errno = 0;
        const std::size_t writtenBytes = std::fwrite(pending_.data(), 1, pending_.size(), stdout);
        if (writtenBytes != pending_.size() || std::fflush(stdout) != 0)
            error_ = errno == 0 ? EIO : errno;
    }
    pending_.clear();
}

} // namespace znstore
