#pragma once

#include "core/types/ZnString.h"

#include <cstdint>
#include <string_view>

/// What a client needs of an http:// or https:// URL.
///
/// Thread: a value.
struct ZnHttpUrl_ {
    /// False, with `*url` undefined, for another scheme, user information, blanks and control characters, and for a
    /// port or an address that is none. An IPv6 address stands in brackets.
    static bool parse(std::string_view text, ZnHttpUrl_* url);

    /// As a "Host" header has it: the port is left out where the scheme says it.
    ZnString hostText() const;
    std::uint16_t defaultPort() const noexcept { return useTls ? 443 : 80; }

    bool useTls = false;
    ZnString host; // without brackets
    std::uint16_t port = 0;
    ZnString path; // from the first "/" on, "/" without one, with query and fragment as they are

private:
    bool parseAuthority_(std::string_view authority);
};
