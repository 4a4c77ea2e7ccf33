#pragma once

#include "core/types/ZnString.h"
#include "core/types/ZnVector.h"

#include <cstdint>
#include <functional>

/// What ZnEmbeddedDb::verify() saw. Thread: a value.
struct ZnEmbeddedDbVerifyReport {
    std::uint64_t tableCount = 0;
    std::uint64_t recordCount = 0; // of all tables, replaced ones and tombstones included
    std::uint64_t liveRecordCount = 0;
    std::uint64_t indexEntryCount = 0;      // that lead to a record
    std::uint64_t staleIndexEntryCount = 0; // that lead to none any more, which costs time and nothing else
    std::uint64_t blobValueCount = 0;
    std::uint64_t tableBytes = 0;
    std::uint64_t blobBytes = 0; // of the values read
    /// What is wrong, one line each, the first 100 of them; with more, `problemCount` tells how many.
    ZnVector<ZnString> problems;
    std::uint64_t problemCount = 0;
    /// Paths of files that nothing refers to: what a crash left behind. Harmless.
    ZnVector<ZnString> orphans;
};

/// Told now and then how far a long operation has come. Called on the thread of the operation.
using ZnEmbeddedDbProgress = std::function<void(std::uint64_t doneBytes, std::uint64_t totalBytes)>;
