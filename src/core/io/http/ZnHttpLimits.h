#pragma once

#include "core/types/ZnString.h"

#include <cstdint>

/// What one server lets a peer send. Copied into every session when the connection is made.
///
/// Thread: a value. A 0 means "no limit" only where the field says so.
struct ZnHttpLimits {
    std::uint64_t maxRequestLineBytes = 8192; // without CRLF; also bounds a chunk size line
    std::uint64_t maxHeaderBytes = 32768;     // header lines with their CRLF, trailers included
    std::uint64_t maxHeaderCount = 100;       // header lines of one request
    std::uint64_t maxBodyBytes = 8388608;     // decoded
    std::uint64_t maxStreamedBodyBytes = 0;   // of a body that streamMultipart keeps out of memory, 0: maxBodyBytes
    std::uint64_t maxChunkBytes = 2097152;    // declared size of one chunk
    std::uint64_t maxPipelinedRequests = 16;  // complete requests that may wait in a session
    std::uint64_t maxConnections = 0;         // sessions of a server, 0: no limit
    std::uint64_t maxInflightRequests = 0;    // requests being handled, 0: no limit
    std::uint64_t maxThreadPoolRequests = 0;  // requests with the thread pool, 0: no limit
    std::uint64_t maxParkedRequests = 0;   // handlers on the loop at a time, 0: as many as leave it fibers for others
    std::uint64_t maxMultipartParts = 256; // parts of one body
    std::uint64_t maxMultipartHeaderBytes = 16384;  // header lines of one part
    std::uint64_t maxMultipartFieldBytes = 2097152; // one streamed part that is no file
    bool strictGrammar = false;    // refuse what other readers of the same bytes may take for something else
    bool refuseBeforeBody = false; // what filters and routes refuse is refused before its body comes; then
                                   // filters see such a request twice, at first without its body
    bool streamMultipart = false;  // multipart bodies are read as they come, their files go to the disk
    ZnString multipartTempDir = "http_multipart_tmp"; // of those files; made when it is missing
};
