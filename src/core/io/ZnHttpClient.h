#pragma once

#include "core/io/ZnHttpConnectionPool.h"
#include "core/types/ZnByteArray.h"
#include "core/types/ZnMap.h"
#include "core/types/ZnString.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

class ZnHttpResponseReader_;
class ZnTcpSocket;
struct ZnHttpClientRequest_;
struct ZnHttpClientResponse_;

/// One HTTP/1.1 request at a time, each on a connection of its own that is closed after it, unless it has a pool.
///
/// Follows no redirect and has no limit of time: a caller that needs one arms a timer and calls abort(). It has a limit
/// of size if the caller sets one.
/// Exactly one of `finished` and `errorOccurred` ends a request that is not aborted.
/// Thread: the owning thread. A slot may delete the client, and abort() or the destructor may come at any time, also
/// while request() is parked.
class ZnHttpClient : public ZnObject {
public:
    ZN_OBJECT(ZnHttpClient, ZnObject)

    enum Method : int { Get = 0, Head = 1, Post = 2, Put = 3, Patch = 4, Delete = 5, Options = 6 };

    // Codes of errorOccurred; all others are those of the socket.
    static constexpr int kUrlNotAccepted = -1;
    static constexpr int kConnectNotBegun = -2;
    static constexpr int kWriteFailed = -3;
    static constexpr int kInvalidChunkSize = -4;
    static constexpr int kInvalidChunkEnd = -5;
    static constexpr int kResponseTooLarge =
        -6;                                 // larger than setMaxResponseBytes() permits, or the head than kMaxHeadBytes
    static constexpr int kClosedEarly = -8; // the connection ended without an error before the response was complete

    /// Whether request() would take the URL.
    static bool isUsableUrl(const ZnString& url);

    static constexpr std::size_t kMaxHeadBytes = 65536; // interim responses included

    explicit ZnHttpClient(ZnObject* parent = nullptr);
    ~ZnHttpClient() override;

    /// Sets a header of this and all later requests; the trimmed name goes out as written here. Returns false, without
    /// any effect, for a name that is no HTTP token and for a value with CR, LF or NUL.
    bool setHeader(const ZnString& name, const ZnString& value);
    /// A bundle of certificate authorities in place of the default trust; used from the next request on.
    void setCaFile(const ZnString& path) { caFile_ = path; }
    /// The largest body of all later requests; 0: no limit.
    void setMaxResponseBytes(std::int64_t maxBytes) { maxResponseBytes_ = maxBytes; }
    /// For all later requests: their connections come from this pool, and go there after a response whose end is beyond
    /// doubt; see setStatusFraming(), which is then on. A request is repeated, on a new connection, only when a kept
    /// one fails before a byte of it has left. `pool` is borrowed, and may end first; null: none. See
    /// ZnHttpConnectionPool::Key for `partition`.
    void setConnectionPool(ZnHttpConnectionPool* pool, const ZnString& partition);
    /// For all later requests: interim responses (1xx) are passed over, and 204, 205 and 304 have no body.
    void setStatusFraming(bool isOn) noexcept { statusFraming_ = isOn; }

    /// Sees the headers of the response and the bytes that its body has grown by. Returns whether the response is to
    /// end here, as if it had been complete. It may abort or delete the client; both arguments are invalid then.
    using BodyObserver = std::function<bool(const ZnMap<ZnString, ZnString>& headers, std::string_view bytes)>;
    /// For all later requests. The body is kept all the same.
    void setBodyObserver(BodyObserver observer);

    /// Begins a request, after an abort of the one before. Parks the calling fiber while a name is resolved. Returns
    /// whether the connection attempt has begun; when not, a signal has said why unless it was aborted.
    /// `url`: http:// or https://, without user information and control characters; an IPv6 address stands in brackets.
    bool request(int method, const ZnString& url, ZnByteArray body, const ZnString& contentType);
    /// Ends the request without a signal and forgets the result.
    void abort();

    // The result, from `finished` to the next request.
    int statusCode() const noexcept;
    const ZnString& reasonPhrase() const noexcept;
    const ZnByteArray& body() const noexcept;
    /// The status line and the headers as received, with the empty line.
    const ZnString& rawHeaders() const noexcept;
    /// Names in lower case; a repeated one has its last value.
    const ZnMap<ZnString, ZnString>& responseHeaders() const noexcept;
    /// Of the last request, when TLS has failed: what OpenSSL says about it.
    const ZnString& failureDetail() const noexcept { return failureDetail_; }
    /// Moves the body out of the result.
    ZnByteArray takeBody();

    // Signals.
    void finished(const ZnByteArray& body);
    void errorOccurred(int code);

private:
    bool takeKept_();
    bool open_();
    ZnTcpSocket* createTlsSocket_();
    void watch_();
    bool connectSocket_();
    ZnHttpConnectionPool::Key key_() const;

    // Slots of the socket.
    void send_();
    void onReadyRead_();
    void onDisconnected_();
    void onSocketError_(int code);

    // Each of these may be the end of the client; those that emit do it as their last action.
    void takeBytes_(std::string_view bytes);
    bool observeBody_(std::size_t seenBytes) const;
    bool repeat_();
    int keepMs_() const;
    void finish_(int keepMs);
    void fail_(int code);
    ZnTcpSocket* letGoOfSocket_();
    void dropSocket_();
    const ZnHttpClientResponse_& resultOrNone_() const noexcept;

    ZnPointer<ZnHttpConnectionPool> pool_; // null: none
    ZnString partition_;
    ZnTcpSocket* socket_ = nullptr; // child; null when idle
    bool isKept_ = false;           // it has carried a request before
    std::size_t requestBytes_ = 0;  // written for this one
    unsigned requestSerial_ = 0;    // changes when a request ends: tells what was parked or emitting that it is over

    std::int64_t maxResponseBytes_ = 0; // 0: no limit
    bool statusFraming_ = false;
    std::shared_ptr<const BodyObserver> observer_; // shared with its running call; null without one
    ZnString caFile_;
    const std::unique_ptr<ZnHttpClientRequest_> request_; // never null, as is reader_
    const std::unique_ptr<ZnHttpResponseReader_> reader_;

    ZnString failureDetail_;
    std::shared_ptr<ZnHttpClientResponse_> result_; // shared with the emission of `finished`; null without a result
};
