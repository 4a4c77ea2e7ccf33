#pragma once

#include "core/fs/TemporaryDirectory.h"
#include "core/storage/MemoryFiles.h"
#include "core/storage/embeddeddb/StoredValue_.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbStatus.h"

#include <ostream>
#include <string>

inline void PrintTo(const ZnEmbeddedDbStatus& status, std::ostream* out) {
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
