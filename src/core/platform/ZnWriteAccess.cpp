#include "core/platform/ZnWriteAccess.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <unistd.h>

namespace {

constexpr int kToMakeFiles = W_OK | X_OK;

ZnString accessProblem(const std::filesystem::path& path, int mode) {
    return ::access(path.c_str(), mode) == 0 ? ZnString() : ZnString(std::strerror(errno));
}

/// As far as there is one.
std::filesystem::path parentOf(const std::filesystem::path& path) {
    return path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
}

} // namespace

ZnString ZnWriteAccess::fileProblem(const ZnString& path) {
    const std::filesystem::path file(path.str());
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(file, error);
    if (std::filesystem::is_directory(status))
        return std::strerror(EISDIR);
    if (std::filesystem::exists(status))
        return accessProblem(file, W_OK);
    return accessProblem(parentOf(file), kToMakeFiles);
}

ZnString ZnWriteAccess::directoryProblem(const ZnString& path) {
    std::filesystem::path directory(path.str());
    std::error_code error;
    while (!std::filesystem::exists(directory, error) && !error && directory != parentOf(directory))
        directory = parentOf(directory);
    if (!error && !std::filesystem::is_directory(directory, error))
        return std::strerror(ENOTDIR);
    return error ? ZnString(error.message()) : accessProblem(directory, kToMakeFiles);
}
