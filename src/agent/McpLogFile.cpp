#include "agent/McpLogFile.h"

#include "core/types/ZnLogger.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace {

std::string_view lineAt(std::string_view text, std::size_t at) {
    return text.substr(at, text.find('\n', at) - at + 1);
}

std::size_t lineBegin(std::string_view text, std::size_t at) {
    return at == 0 ? 0 : text.rfind('\n', at - 1) + 1; // 0 when there is none
}

} // namespace

bool McpLogFile::open(ZnString* problem) {
    if (isStandardOutput_())
        file_.openStandardOutput();
    else if (!file_.open(path_, problem))
        return false;
    sizeBytes_ = file_.openedBytes();
    rotateBytes_ = maxBytes_;
    return true;
}

bool McpLogFile::write(std::string_view text, std::size_t* at, int waitMs, ZnString* problem) {
    if (!prepare_(text, at, problem))
        return false;
    std::string_view piece = text.substr(*at);
    if (file_.isRegular() && sizeBytes_ + piece.size() > rotateBytes_) {
        // Whole lines up to the bound; one alone in any case, or the rest of the one that was begun.
        const std::size_t roomBytes = static_cast<std::size_t>(std::max(rotateBytes_, sizeBytes_) - sizeBytes_);
        const std::size_t end = piece.substr(0, roomBytes).rfind('\n');
        piece = end == std::string_view::npos ? lineAt(text, *at) : piece.substr(0, end + 1);
    }
    const std::size_t written = file_.write(piece, waitMs, problem);
    *at += written;
    sizeBytes_ += written;
    if (!problem->isEmpty() && !file_.isRegular())
        file_.close(); // a pipe may get another reader, who begins with a whole line
    return problem->isEmpty();
}

/// Has the file open in which the line at `*at` is to be written, or the rest of it.
bool McpLogFile::prepare_(std::string_view text, std::size_t* at, ZnString* problem) {
    if (file_.isOpen() && !isStandardOutput_() && !file_.isAt(path_))
        file_.close();
    if (!file_.isOpen()) {
        *at = lineBegin(text, *at);
        if (!open(problem))
            return false;
    }
    const bool isAtLine = *at == lineBegin(text, *at);
    if (file_.isRegular() && isAtLine && sizeBytes_ > 0 && sizeBytes_ + lineAt(text, *at).size() > rotateBytes_)
        return rotate_(problem);
    return true;
}

/// False only when there is no file any more. One that cannot be renamed goes on.
bool McpLogFile::rotate_(ZnString* problem) {
    const auto nameOf = [this](int age) { return age == 0 ? path_.str() : path_.str() + "." + std::to_string(age); };
    std::error_code error;
    for (int age = kMaxOldFiles - 1; age >= 0; --age)
        std::filesystem::rename(nameOf(age), nameOf(age + 1), error); // the last one counts; others may be missing
    if (!error)
        return open(problem);
    rotateBytes_ = sizeBytes_ + maxBytes_;
    ZN_LOG_WARNING("zn.agent.mcplogfile", "McpLogFile::rotate_")
        << path_ << " is full and cannot be renamed: " << error.message();
    return true;
}
