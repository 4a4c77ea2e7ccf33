#include "core/io/http/ZnHttpMultipart.h"
#include "core/io/http/ZnHttpMultipartStream_.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <unistd.h>

// The law: for one body, boundary and set of limits
//   1. the buffered reader accepts it exactly if the streaming one does, and both give the same parts and fields,
//      where the content of a temporary file counts as the part's bytes;
//   2. where the input of the streaming reader is cut changes neither that nor the text of its failure;
//   3. when the request is gone, or the body has failed, no temporary file is left.
// The texts of the two readers may differ: they look for different things first. The limit on fields is out of the way,
// for only the streaming reader has one.
// The first byte of the input chooses the cuts, the second one the boundary and where files go, the rest is the body.

namespace {

namespace fs = std::filesystem;

constexpr const char* kBoundaries[] = {"b", "--", "b--", "\r-\n-"};

/// Made at the first use, removed at the end of the process.
class WorkDirectory {
public:
    WorkDirectory() : path_(fs::temp_directory_path() / ("multipart_fuzz_" + std::to_string(::getpid()))) {
        fs::create_directory(path_);
    }
    ~WorkDirectory() { fs::remove_all(path_); }
    const fs::path& path() const { return path_; }

private:
    const fs::path path_;
};

const fs::path& workPath() {
    static const WorkDirectory directory;
    return directory.path();
}

std::string contentOf(const ZnString& path) {
    std::ifstream file(path.str(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

std::string describe(const ZnHttpRequest& request) {
    std::string text;
    for (const ZnHttpMultipartPart& part : request.multipartParts) {
        if (part.isTempFile != !part.tempFilePath.isEmpty() || (part.isTempFile && !part.data.isEmpty()))
            std::abort();
        for (const auto& [name, value] : part.headers)
            text += name.str() + ':' + value.str() + '\n';
        text += part.name.str() + '\n' + part.fileName.str() + '\n' + part.contentType.str() + '\n';
        text += std::to_string(part.size) + (part.isFile ? "file" : "field") + '\n';
        text += part.isTempFile ? contentOf(part.tempFilePath) : std::string(part.data.view());
    }
    for (const auto& [name, value] : request.formFields)
        text += name.str() + '=' + value.str() + '\n';
    return text;
}

struct Outcome {
    bool isValid = false;
    std::string text; // the parts, or what failed
};

Outcome outcomeOfBuffered(std::string_view body, const ZnString& boundary, const ZnHttpLimits& limits) {
    ZnHttpRequest request;
    request.headers.insert("content-type", "Multipart/Form-Data; boundary=\"" + boundary + "\"");
    request.body = ZnByteArray(body);
    ZnString errorText;
    if (!zn::http::parseMultipart(request, limits, &errorText))
        return {false, errorText.str()};
    return {true, describe(request)};
}

bool feedPieces(ZnHttpMultipartStream_& stream, std::string_view body, std::uint32_t seed, ZnString* errorText) {
    while (!body.empty()) {
        std::size_t pieceBytes = body.size();
        if (seed != 0) {
            seed = seed * 1664525 + 1013904223;
            pieceBytes = std::min<std::size_t>(body.size(), 1 + (seed >> 24) % 7);
        }
        if (!stream.feed(body.substr(0, pieceBytes), errorText))
            return false;
        body.remove_prefix(pieceBytes);
    }
    return true;
}

/// Feeds pieces whose sizes follow from `seed`; 0: everything at once.
Outcome outcomeOfStreamed(std::string_view body, const ZnString& boundary, const ZnHttpLimits& limits,
                          std::uint32_t seed) {
    ZnHttpRequest request;
    ZnHttpMultipartStream_ stream;
    ZnString errorText;
    if (!stream.begin(boundary, limits, limits.multipartTempDir, &errorText))
        std::abort();
    if (feedPieces(stream, body, seed, &errorText) && stream.finish(request, &errorText))
        return {true, describe(request)};
    return {false, errorText.str()};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2)
        return 0;
    const std::string_view body(reinterpret_cast<const char*>(data) + 2, size - 2);
    const ZnString boundary = kBoundaries[data[1] % std::size(kBoundaries)];
    ZnHttpLimits limits;
    limits.maxMultipartParts = 3;
    limits.maxMultipartHeaderBytes = 96;
    limits.maxMultipartFieldBytes = std::numeric_limits<std::uint64_t>::max();
    limits.streamMultipart = data[1] >= 128;
    limits.multipartTempDir = workPath().string();

    const Outcome buffered = outcomeOfBuffered(body, boundary, limits);
    const Outcome whole = outcomeOfStreamed(body, boundary, limits, 0);
    const Outcome pieces = outcomeOfStreamed(body, boundary, limits, data[0] + 1U);
    if (whole.isValid != buffered.isValid || (whole.isValid && whole.text != buffered.text))
        std::abort();
    if (pieces.isValid != whole.isValid || pieces.text != whole.text)
        std::abort();
    if (limits.streamMultipart && !fs::is_empty(workPath()))
        std::abort();
    return 0;
}
