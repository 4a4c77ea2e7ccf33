#include "core/platform/ZnSocketError.h"

#include <cerrno>

namespace ZnSocketError {
namespace {

struct Row_ {
    int errnoValue;
    int code;
};

constexpr Row_ kRows[] = {
    {EAGAIN, kWouldBlock},
    {EINPROGRESS, kInProgress},
    {ECONNREFUSED, kConnectionRefused},
    {ECONNRESET, kConnectionReset},
    {ECONNABORTED, kConnectionAborted},
    {EPIPE, kConnectionAborted},
    {ETIMEDOUT, kTimedOut},
    {EHOSTUNREACH, kHostUnreachable},
    {ENETUNREACH, kNetworkUnreachable},
    {EADDRINUSE, kAddressInUse},
    {EACCES, kAccessDenied},
    {EPERM, kAccessDenied},
    {EMFILE, kTooManyDescriptors},
    {ENFILE, kTooManyDescriptors},
    {ENOBUFS, kNoBufferSpace},
    {ENOMEM, kNoBufferSpace},
    {ENOTCONN, kNotConnected},
    {EINTR, 10004},
    {EBADF, 10009},
    {EFAULT, 10014},
    {EINVAL, 10022},
    {EALREADY, 10037},
    {ENOTSOCK, 10038},
    {EDESTADDRREQ, 10039},
    {EMSGSIZE, 10040},
    {EPROTOTYPE, 10041},
    {ENOPROTOOPT, 10042},
    {EPROTONOSUPPORT, 10043},
    {ESOCKTNOSUPPORT, 10044},
    {EOPNOTSUPP, 10045},
    {EAFNOSUPPORT, kFamilyNotSupported},
    {EADDRNOTAVAIL, kAddressNotAvailable},
    {ENETDOWN, 10050},
    {ENETRESET, 10052},
    {EISCONN, 10056},
    {ESHUTDOWN, 10058},
    {EHOSTDOWN, 10064},
};

} // namespace

int fromErrno(int errnoValue) noexcept {
    for (const Row_& row : kRows) {
        if (row.errnoValue == errnoValue)
            return row.code;
    }
    return errnoValue;
}

} // namespace ZnSocketError
