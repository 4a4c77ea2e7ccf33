#pragma once

#include "core/types/ZnString.h"

#include <cstdint>
#include <utility>

/// How an operation of the store ended.
///
/// Thread: a value. The message is empty exactly for Ok, and written for the person who reads it.
class [[nodiscard]] ZnEmbeddedDbStatus {
public:
    enum Code : std::int32_t {
        Ok = 0,
        NotFound = 1,        // no such key
        Busy = 2,            // someone else has the lock of the store
        ReadOnly = 3,        // the store was opened for reading
        InvalidArgument = 4, // the caller's mistake; nothing was done
        NotAvailable = 5,    // the store is not open, or closes
        IoError = 6,         // the file system failed; trying again later may help
        Corruption = 7       // what a file holds cannot be what was written
    };

    ZnEmbeddedDbStatus() = default; // Ok
    ZnEmbeddedDbStatus(Code code, ZnString message) : code_(code), message_(std::move(message)) {}

    bool isOk() const noexcept { return code_ == Ok; }
    Code code() const noexcept { return code_; }
    const ZnString& message() const noexcept { return message_; }
    /// The same with ": " and the path behind the message; Ok stays Ok.
    ZnEmbeddedDbStatus at(const ZnString& path) const;

    bool operator==(const ZnEmbeddedDbStatus& other) const = default;

private:
    Code code_ = Ok;
    ZnString message_;
};
