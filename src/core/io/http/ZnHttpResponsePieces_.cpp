#include "core/io/http/ZnHttpResponsePieces_.h"

#include <string>
#include <utility>

namespace {

// A body up to this size is copied behind its head and leaves with it in one write; a larger one is handed over.
constexpr std::size_t kJoinedBodyBytes = 16 * 1024;

} // namespace

const char* ZnHttpResponsePieces_::begin(ZnHttpResponse& response, bool closeAfterResponse,
                                         std::uint64_t defaultBlockBytes, Piece* piece) {
    if ((response.useFile || response.chunked) && !response.headOnly) {
        // The first piece leaves with the head: that a file cannot be read is found out before a head has promised it.
        stream_ = ZnHttpBodyStream_::open(response, defaultBlockBytes);
        if (!stream_)
            return "Unable to open file";
        std::string text = response.head(closeAfterResponse).takeStr();
        if (!take_(&text, &piece->bytes)) {
            drop();
            return "File stream read failure";
        }
        piece->text = ZnString(std::move(text));
        return nullptr;
    }
    // The head never leaves alone: a small packet in front of the body costs the peer's delayed acknowledgement.
    const bool isJoined = response.body.size() <= kJoinedBodyBytes;
    piece->text = response.head(closeAfterResponse, isJoined ? response.body.size() : 0);
    if (response.headOnly)
        return nullptr;
    if (isJoined)
        piece->text.append(response.body.view());
    else
        piece->bytes = std::move(response.body);
    return nullptr;
}

ZnHttpResponsePieces_::Piece ZnHttpResponsePieces_::switchHead(ZnHttpResponse& response) {
    response.headOnly = response.useFile = response.chunked = false;
    response.body = ZnByteArray();
    return {response.head(false), ZnByteArray()};
}

bool ZnHttpResponsePieces_::takeNext(Piece* piece) {
    std::string text;
    if (!take_(&text, &piece->bytes))
        return false;
    piece->text = ZnString(std::move(text));
    return true;
}

/// True also when there was nothing left to take.
bool ZnHttpResponsePieces_::take_(std::string* text, ZnByteArray* bytes) {
    if (!stream_->isAtEnd() && !stream_->take(text, bytes))
        return false;
    if (stream_->isAtEnd())
        stream_.reset(); // the end of this write is the end of the response
    return true;
}
