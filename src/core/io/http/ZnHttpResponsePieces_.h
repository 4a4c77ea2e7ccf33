#pragma once

#include "core/io/http/ZnHttpBodyStream_.h"
#include "core/io/http/ZnHttpResponse.h"
#include "core/types/ZnByteArray.h"
#include "core/types/ZnString.h"

#include <cstdint>
#include <memory>
#include <string>

/// One response on its way, as the pieces in which it is written: memory holds one of them.
///
/// Thread: that of its session, which owns it. Reading a file may wait for the disk, and for nothing else.
class ZnHttpResponsePieces_ {
public:
    struct Piece {
        ZnString text;
        ZnByteArray bytes; // leave after the text
    };

    /// Takes the body out of `response`, which is settled, and gives the first piece. Returns null, or why there is
    /// none: then nothing is on its way.
    const char* begin(ZnHttpResponse& response, bool closeAfterResponse, std::uint64_t defaultBlockBytes, Piece* piece);
    /// All there is of a response that leaves HTTP: what follows its head is not HTTP, so it has no body.
    static Piece switchHead(ZnHttpResponse& response);

    bool hasNext() const noexcept { return stream_ != nullptr; }
    /// False: the next piece cannot be had.
    bool takeNext(Piece* piece);
    /// Forgets what is left, and closes its file.
    void drop() noexcept { stream_.reset(); }

private:
    bool take_(std::string* text, ZnByteArray* bytes);

    std::unique_ptr<ZnHttpBodyStream_> stream_; // what is left of the body; null when all was given
};
