#pragma once

#include "core/types/ZnString.h"

#include <cstddef>
#include <cstdint>

namespace zn::ipc {

constexpr std::size_t kMaxDomainBytes = 64;
constexpr std::size_t kMaxObjectBytes = 64;
constexpr std::size_t kMaxSignalBytes = 160;

/// What a domain is called in the names of shared objects: letters, digits, "-", "." and "_", at most 49 bytes.
ZnString sanitizeDomain(const ZnString& domain);

/// Names one subscription of one process.
std::uint64_t subscriptionId(const ZnString& domain, const ZnString& object, const ZnString& signal, std::uint32_t pid,
                             const ZnString& subscriberObject);

namespace detail {

std::uint64_t fnv1a(std::string_view text);
/// 16 lower-case digits.
ZnString hexText(std::uint64_t value);

/// False, with the reason, for texts that do not fit into a row of the registry, or have a zero byte.
bool checkAddress(const ZnString& domain, const ZnString& object, const ZnString& signal, ZnString* errorText);

// Names of this user's shared objects.
ZnString registryName(const ZnString& domain);
ZnString registryMutexName(const ZnString& domain);
ZnString signalBlockName(const ZnString& domain, const ZnString& object, const ZnString& signal);
ZnString signalMutexName(const ZnString& domain, const ZnString& object, const ZnString& signal);
/// With the process's start time: shared memory may outlive its process, and another one may get its id.
ZnString dispatchTableName();
ZnString dispatchTablePrefix();
/// What all the names end in.
ZnString nameSuffix();

} // namespace detail
} // namespace zn::ipc
