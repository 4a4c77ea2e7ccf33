#pragma once

/// The system's own socket error numbers, the only ones that anything above the platform layer sees.
namespace ZnSocketError {
constexpr int kAccessDenied = 10013;
constexpr int kTooManyDescriptors = 10024;
constexpr int kWouldBlock = 10035;
constexpr int kInProgress = 10036;
constexpr int kAddressInUse = 10048;
constexpr int kFamilyNotSupported = 10047;
constexpr int kAddressNotAvailable = 10049;
constexpr int kNetworkUnreachable = 10051;
constexpr int kConnectionAborted = 10053;
constexpr int kConnectionReset = 10054;
constexpr int kNoBufferSpace = 10055;
constexpr int kNotConnected = 10057;
constexpr int kTimedOut = 10060;
constexpr int kConnectionRefused = 10061;
constexpr int kHostUnreachable = 10065;
constexpr int kHostNotFound = 11001;

/// The number for an errno value; an unknown one passes through unchanged.
int fromErrno(int errnoValue) noexcept;
} // namespace ZnSocketError
