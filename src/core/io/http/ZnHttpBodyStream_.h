#pragma once

#include "core/io/http/ZnHttpResponse.h"
#include "core/types/ZnByteArray.h"

#include <cstdint>
#include <memory>
#include <string>

/// A body that leaves piece by piece: a part of a file, or a list of chunks with their framing.
///
///   chunk: size in hexadecimal CRLF  bytes CRLF     end: "0" CRLF CRLF
///
/// Thread: that of its session. Reading a file may wait for the disk, and for nothing else.
/// Owner: the session, while the response is on its way.
class ZnHttpBodyStream_ {
public:
    virtual ~ZnHttpBodyStream_() = default;

    /// Takes the body of a response with a file or with chunked framing out of it. Null: the file cannot be opened.
    /// A file is read in pieces of `fileChunkBytes`, or else of `defaultBlockBytes`, within sane bounds.
    static std::unique_ptr<ZnHttpBodyStream_> open(ZnHttpResponse& response, std::uint64_t defaultBlockBytes);

    virtual bool isAtEnd() const noexcept = 0;
    /// Gives the next piece of a stream that is not at its end: it is appended to `*text`, but for the bytes of a large
    /// chunk, which are handed over in `*bytes` and sent after it. False: it cannot be had.
    virtual bool take(std::string* text, ZnByteArray* bytes) = 0;
};
