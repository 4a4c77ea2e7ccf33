#include "core/io/http/ZnHttpBodyStream_.h"

#include "core/platform/ZnFileReader.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <utility>

namespace {

constexpr std::uint64_t kMinBlockBytes = 4096;
constexpr std::uint64_t kMaxBlockBytes = 2 * 1024 * 1024;
// Unless a response asks for more: a slow peer has the write time-out for one block, and the loop waits for the disk.
constexpr std::uint64_t kUsualBlockBytes = 64 * 1024;
// Chunks are copied together into pieces of about this size; a larger one is handed on as it is.
constexpr std::size_t kJoinedBytes = 16 * 1024;

class FileBody final : public ZnHttpBodyStream_ {
public:
    FileBody(ZnFileReader file, const ZnHttpResponse& response, std::uint64_t blockBytes)
        : file_(std::move(file)),
          offset_(response.fileOffset),
          remainingBytes_(response.fileLength),
          blockBytes_(blockBytes) {}

    bool isAtEnd() const noexcept override { return remainingBytes_ == 0; }
    bool take(std::string* text, ZnByteArray*) override {
        const std::size_t before = text->size();
        const auto wanted = static_cast<std::size_t>(std::min(blockBytes_, remainingBytes_));
        text->resize(before + wanted);
        const std::size_t got = file_.readAt(offset_, text->data() + before, wanted);
        text->resize(before + got);
        offset_ += got;
        remainingBytes_ -= got;
        return got > 0; // else the file has become shorter than was promised
    }

private:
    const ZnFileReader file_;
    std::uint64_t offset_;
    std::uint64_t remainingBytes_;
    const std::uint64_t blockBytes_;
};

class ChunkedBody final : public ZnHttpBodyStream_ {
public:
    explicit ChunkedBody(ZnList<ZnByteArray> chunks) : chunks_(std::move(chunks)) {}

    bool isAtEnd() const noexcept override { return isEndTaken_; }
    bool take(std::string* text, ZnByteArray* bytes) override {
        const std::size_t roomEnd = text->size() + kJoinedBytes;
        for (; chunkIndex_ < chunks_.size(); ++chunkIndex_) {
            ZnByteArray& chunk = chunks_[chunkIndex_];
            if (chunk.isEmpty())
                continue; // it would be the end of the body
            const bool isLarge = chunk.size() > kJoinedBytes;
            if (!isLarge && text->size() + chunk.size() > roomEnd)
                return true;
            beginChunk_(text, chunk.size());
            if (isLarge) {
                *bytes = std::move(chunk);
                ++chunkIndex_;
                return true;
            }
            *text += chunk.view();
        }
        *text += isInsideBody_ ? "\r\n0\r\n\r\n" : "0\r\n\r\n";
        isEndTaken_ = true;
        return true;
    }

private:
    /// Each chunk's closing CRLF is written in front of what follows it, so that no chunk is copied to append one.
    void beginChunk_(std::string* text, std::size_t chunkBytes) {
        if (std::exchange(isInsideBody_, true))
            *text += "\r\n";
        char digits[16];
        const auto end = std::to_chars(digits, digits + sizeof(digits), chunkBytes, 16).ptr;
        text->append(digits, end);
        *text += "\r\n";
    }

    ZnList<ZnByteArray> chunks_;
    std::size_t chunkIndex_ = 0;
    bool isInsideBody_ = false; // a chunk was begun
    bool isEndTaken_ = false;
};

std::uint64_t blockBytesFor(const ZnHttpResponse& response, std::uint64_t defaultBlockBytes) {
    std::uint64_t blockBytes = response.fileChunkBytes;
    if (blockBytes == 0)
        blockBytes = defaultBlockBytes == 0 ? kUsualBlockBytes : std::min(defaultBlockBytes, kUsualBlockBytes);
    return std::clamp(blockBytes, kMinBlockBytes, kMaxBlockBytes);
}

} // namespace

std::unique_ptr<ZnHttpBodyStream_> ZnHttpBodyStream_::open(ZnHttpResponse& response, std::uint64_t defaultBlockBytes) {
    if (response.useFile) {
        ZnFileReader file;
        if (!file.open(response.filePath))
            return nullptr;
        return std::make_unique<FileBody>(std::move(file), response, blockBytesFor(response, defaultBlockBytes));
    }
    ZnList<ZnByteArray> chunks = std::move(response.chunks);
    if (chunks.isEmpty())
        chunks.append(std::move(response.body));
    return std::make_unique<ChunkedBody>(std::move(chunks));
}
