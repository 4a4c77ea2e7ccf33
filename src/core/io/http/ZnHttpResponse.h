#pragma once

#include "core/io/http/ZnHttpText.h"
#include "core/types/ZnByteArray.h"
#include "core/types/ZnList.h"
#include "core/types/ZnMap.h"
#include "core/types/ZnString.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

class ZnAbstractSocket;

/// One response. Handed on by move from the handler to the socket.
///
/// Its body is `body`, or `chunks` when it is chunked, or a part of a file. A file and the chunks leave piece by
/// piece, the next piece when the peer has taken the last one.
/// Thread: a value.
struct ZnHttpResponse {
    std::int32_t status = 200;
    ZnString reason = "OK";            // empty: taken from the status when it is sent
    ZnMap<ZnString, ZnString> headers; // names in lower case; one that could break the head is not sent
    ZnByteArray body;
    bool chunked = false;  // chunked framing: of `chunks`, or of the body as one chunk without them
    bool useFile = false;  // the body is that part of the file; goes before the other two
    bool headOnly = false; // the body stays here; the answer to HEAD tells how long it is
    bool closeConnection = false;
    bool switchProtocols = false;     // with onSwitch: the connection leaves HTTP after this head
    bool switchWithoutHead = false;   // it does so at once, and nothing is sent
    ZnList<ZnByteArray> chunks;       // in their order; empty ones are not sent, they would end the body
    ZnString filePath;                // of a regular file
    std::uint64_t fileOffset = 0;     // the first byte to send
    std::uint64_t fileLength = 0;     // bytes to send; a file that ends sooner ends the connection
    std::uint64_t fileChunkBytes = 0; // how much is read at a time, 0: the default
    /// Takes over the socket, which is its own from there on, on the session's thread. Bytes may have come already: it
    /// reads once before it waits for readyRead.
    std::function<void(ZnAbstractSocket*)> onSwitch;

    /// A response of `status` with its reason, one "content-type" and a body.
    static ZnHttpResponse text(int status, std::string_view body, std::string_view contentType = zn::http::kPlainText);
    /// A plain text that closes the connection of a request unless that is to be kept.
    static ZnHttpResponse plain(int status, std::string_view body, bool keepAlive);

    /// Bytes of the body, wherever it comes from, without chunk framing.
    std::uint64_t bodyBytes() const noexcept;
    /// Makes head() and body agree on what is sent. After 1xx and 204 no body can follow, after 304 and in answer to
    /// HEAD (`isHead`) only the head speaks of one: headOnly is set for those two and false for all others.
    void settleBody(bool isHead);
    /// For a peer of HTTP/1.0, which does not know chunked framing: the chunks become one body.
    void joinChunks();
    /// The status line, the headers and the empty line behind them, as they go out. "content-length" or
    /// "transfer-encoding", and "connection" are added when the headers lack them. Headers and a reason that could
    /// break the head are left out, and so is framing of the headers' own that is not the body's: the peer would take
    /// what follows for the body, or the body for the next response. The text has room for `spareBytes` more.
    ZnString head(bool closeAfterResponse, std::size_t spareBytes = 0) const;
};

/// Takes the answer to one request; any call but the first does nothing. Any thread.
using ZnHttpResponseCallback = std::function<void(ZnHttpResponse)>;
