#pragma once

#include "core/fs/TemporaryDirectory.h"
#include "core/storage/MemoryFiles.h"
#include "core/storage/embeddeddb/StoredValue_.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbStatus.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <ostream>
#include <random>
#include <string>

using Status = ZnEmbeddedDbStatus;
inline const Status kOk;

inline void PrintTo(const Status& status, std::ostream* out) {
    *out << status.code() << " " << status.message();
}

inline znEmbeddedDbDetail::ValueEntry_ inlineEntry(std::string_view value) {
    znEmbeddedDbDetail::ValueEntry_ entry;
    entry.inlineValue = true;
    entry.value = ZnByteArray(value);
    return entry;
}

inline std::string encoded(const znEmbeddedDbDetail::ValueEntry_& entry) {
    std::string bytes;
    znEmbeddedDbDetail::encodeStoredValue(entry, &bytes);
    return bytes;
}

#ifdef ZN_GOLDEN_DIRECTORY
inline std::string golden(const char* name) {
    std::string content = contentOf(ZnString(ZN_GOLDEN_DIRECTORY) + name);
    EXPECT_FALSE(content.empty()) << name;
    return content;
}
#endif

/// Calls `check(damaged, what)` for every single bit flip and for every truncation.
template <typename Check>
void forEachDamage(const std::string& bytes, Check check) {
    for (std::size_t bit = 0; bit < bytes.size() * 8; ++bit) {
        std::string damaged = bytes;
        damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << (bit % 8)));
        check(damaged, "bit " + std::to_string(bit % 8) + " of byte " + std::to_string(bit / 8));
    }
    for (std::size_t size = 0; size < bytes.size(); ++size)
        check(bytes.substr(0, size), "cut at " + std::to_string(size));
}

/// Has `write` meet a failure, or the end of the process, at its first, second, third operation on the files, and so on
/// until it is past its last one; then the power goes. `prepare` makes the files, `write` tells whether it promises
/// that what it wrote lasts, and `check(files, isPromised)` looks at what is left.
template <typename Prepare, typename Write, typename Check>
void breakEveryOperation(Prepare prepare, Write write, Check check) {
    std::mt19937_64 random(20240607);
    bool isHit = true;
    for (long number = 1; isHit; ++number) {
        for (int round = 0; round < 8; ++round) {
            SCOPED_TRACE("operation " + std::to_string(number) + ", round " + std::to_string(round));
            const bool stops = round % 2 == 0;
            MemoryFiles files;
            prepare(files);
            stops ? files.stopAt(number) : files.failOperation(number, ENOSPC);
            const bool isPromised = write(files);
            isHit = files.operationCount() >= number;
            // A stop fails all that comes after it. A single failure may be one that does not matter.
            EXPECT_TRUE(stops ? isPromised == !isHit : isPromised || isHit);
            files.cutPower(round < 2 ? nullptr : &random);
            check(files, isPromised);
        }
    }
}
