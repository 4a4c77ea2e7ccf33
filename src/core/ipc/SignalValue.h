#pragma once

#include <cstdint>

namespace zn::ipc {

/// What a publication says, and its number. Numbers are compared for equality only: they may begin anew.
struct SignalValue {
    std::uint64_t sequence = 0;
    std::uint64_t first = 0;
    std::uint64_t second = 0;
};

} // namespace zn::ipc
