#pragma once

#include "core/io/http/ZnHttpText.h"
#include "core/types/ZnByteArray.h"
#include "core/types/ZnMap.h"
#include "core/types/ZnString.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

/// One response. Handed on by move from the handler to the socket.
///
/// Thread: a value.
struct ZnHttpResponse {
    std::int32_t status = 200;
    ZnString reason = "OK";            // empty: taken from the status when it is sent
    ZnMap<ZnString, ZnString> headers; // names in lower case; one that could break the head is not sent
    ZnByteArray body;
    bool headOnly = false;             // the head says how long the body is, but the body stays here
    bool closeConnection = false;

    /// A response of `status` with its reason, one "content-type" and a body.
    static ZnHttpResponse text(int status, std::string_view body, std::string_view contentType = zn::http::kPlainText);
    /// A plain text that closes the connection of a request unless that is to be kept.
    static ZnHttpResponse plain(int status, std::string_view body, bool keepAlive);

    /// The status line, the headers and the empty line behind them, as they go out. "content-length" and "connection"
    /// are added when the headers lack them; headers and a reason that could break the head are left out. The
    /// text has room for `spareBytes` more.
    ZnString head(bool closeAfterResponse, std::size_t spareBytes = 0) const;
};

/// Takes the answer to one request; any call but the first does nothing. Any thread.
using ZnHttpResponseCallback = std::function<void(ZnHttpResponse)>;
