// Runs a fuzz target over saved inputs: every file that is named, and every file in a directory that is
// named. A path that does not exist, or finding no file at all, is a failure: a corpus that got lost must not
// look tested.

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t byteCount);

namespace {

constexpr int kFaultStatus = 77;
std::string currentFile; // read by the signal handler; written between runs only

/// Names the input, for whoever has to find the fault (and for the test that expects one), and ends with an
/// exit status.
void onAbort(int) {
    constexpr char kText[] = "\nfault while replaying ";
    (void)!::write(STDERR_FILENO, kText, sizeof(kText) - 1);
    (void)!::write(STDERR_FILENO, currentFile.c_str(), currentFile.size());
    (void)!::write(STDERR_FILENO, "\n", 1);
    ::_exit(kFaultStatus);
}

std::vector<std::filesystem::path> filesIn(const std::filesystem::path& path) {
    std::vector<std::filesystem::path> files;
    if (!std::filesystem::is_directory(path))
        return {path};
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
        if (entry.is_regular_file())
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

bool replay(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "cannot open %s\n", path.c_str());
        return false;
    }
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    // A block of exactly this size on the heap, so that a sanitizer sees the first byte read past the end.
    const std::unique_ptr<std::uint8_t[]> input(new std::uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), input.get());
    currentFile = path.string();
    LLVMFuzzerTestOneInput(input.get(), bytes.size());
    return true;
}

} // namespace

int main(int argumentCount, char** arguments) {
    std::signal(SIGABRT, &onAbort);
    std::size_t fileCount = 0;
    for (int index = 1; index < argumentCount; ++index) {
        for (const std::filesystem::path& path : filesIn(arguments[index])) {
            if (!replay(path))
                return 1;
            ++fileCount;
        }
    }
    std::printf("replayed %zu inputs\n", fileCount);
    if (fileCount == 0)
        std::fprintf(stderr, "no input found\n");
    return fileCount == 0 ? 1 : 0;
}
