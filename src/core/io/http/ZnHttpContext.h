#pragma once

#include "core/io/http/ZnHttpRequest.h"
#include "core/io/http/ZnHttpResponse.h"
#include "core/types/ZnJsonDocument.h"

#include <any>
#include <string_view>

/// A route handler's view of one request and of the response that it fills.
///
/// Thread: the handler's fiber. The handler may park: the request stays valid as long as the context does.
/// Owner: the frame that runs the handler.
class ZnHttpContext {
public:
    explicit ZnHttpContext(const ZnHttpRequest& request) noexcept : request_(request) {}
    ZnHttpContext(const ZnHttpContext&) = delete;
    ZnHttpContext& operator=(const ZnHttpContext&) = delete;

    /// Values that middleware leaves for the handler.
    ZnMap<ZnString, std::any>& locals() noexcept { return locals_; }
    const ZnHttpRequest& request() const noexcept { return request_; }
    ZnHttpResponse& response() noexcept { return response_; }
    const ZnHttpResponse& response() const noexcept { return response_; }
    /// Whether the handler has answered. Each of the next six operations counts as an answer.
    bool responded() const noexcept { return responded_; }

    /// Sets or replaces a header; the name is stored in lower case. Returns false, without any effect, for a name
    /// that is no HTTP token and for a value with CR, LF or NUL; all but an empty name are logged.
    bool setHeader(const ZnString& name, ZnString value);
    /// The whole answer; an empty `contentType` leaves that header as it is.
    void send(ZnByteArray bytes, ZnString contentType, int status = 200);
    void sendString(const ZnString& text, ZnString contentType, int status = 200);
    void text(const ZnString& text, int status = 200);
    void json(const ZnJsonValue& value, int status = 200, JsonFormat format = JsonFormat::Compact);
    /// An answer without a body.
    void sendStatus(int status);

    /// The value of a header of the request, or `fallback`. Letter case does not matter.
    ZnString requestHeader(const ZnString& name, const ZnString& fallback = ZnString()) const;
    /// The same without a copy; null when the request has no such header.
    const ZnString* findRequestHeader(std::string_view name) const;
    /// The value that stood in the path for ":name" or "*name" of the route; empty without one.
    const ZnString& pathParam(std::string_view name) const;

    /// Parses the body as JSON, without its NUL bytes and a byte order mark in front. On failure returns false,
    /// with the parser's reason in `*errorText` and `*document` as it was.
    bool parseJsonBody(ZnJsonDocument* document, ZnString* errorText, JsonReading reading = JsonReading::Dialect,
                       std::size_t maxValues = ZnJsonDocument::kNoLimit) const;

private:
    void setStatus_(int status);
    void setBody_(ZnByteArray bytes);

    const ZnHttpRequest& request_;
    ZnHttpResponse response_;
    ZnMap<ZnString, std::any> locals_;
    bool responded_ = false;
};
