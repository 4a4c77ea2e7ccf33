#pragma once

#include <cstddef>
#include <cstdint>

namespace zn::ipc {

using DispatchCallback = void (*)();

/// The callbacks that a notification of this process runs, as they stand in shared memory.
///
/// By its name several modules of one process, each with its own copy of this code, meet in one table. The name holds
/// what tells this process from all others, and who makes the table empties it: an address of another process is never
/// called.
struct DispatchTable {
    static constexpr std::size_t kSlotCount = 64;

    char magic[4]; // "1PSD"
    std::uint32_t version;
    DispatchCallback slots[kSlotCount]; // null is free
};

/// The process's table, made at first need, and anew in the child of a fork; null when that fails. Any thread.
DispatchTable* dispatchTable();

namespace detail {
/// Enters a callback once. False when there is no table or no free slot.
bool addDispatchCallback(DispatchCallback callback);
void removeDispatchCallback(DispatchCallback callback);
/// Calls all callbacks of the table; false when there is none.
bool runDispatchTable();
} // namespace detail

} // namespace zn::ipc
