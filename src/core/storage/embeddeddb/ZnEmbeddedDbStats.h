#pragma once

#include "core/storage/embeddeddb/ZnEmbeddedDbStatus.h"

#include <cstdint>

/// What a store did since it was opened, and what it holds now. Thread: a value.
struct ZnEmbeddedDbStats {
    // Counters.
    std::uint64_t putCount = 0;
    std::uint64_t removeCount = 0;
    std::uint64_t getCount = 0; // keys asked for
    std::uint64_t getHitCount = 0;
    std::uint64_t scanCount = 0;
    std::uint64_t indexLookupCount = 0;
    std::uint64_t batchCount = 0; // writes of any size
    std::uint64_t groupCount = 0; // writes to the log, each of one batch or more
    std::uint64_t walBytesWritten = 0;
    std::uint64_t walSyncCount = 0;
    std::uint64_t walRotationCount = 0;
    std::uint64_t flushCount = 0;
    std::uint64_t flushBytesWritten = 0; // tables; for blob files see blobBytesWritten
    std::uint64_t flushFailedCount = 0;
    std::uint64_t compactionCount = 0;
    std::uint64_t compactionBytesRead = 0;
    std::uint64_t compactionBytesWritten = 0;
    std::uint64_t compactionFailedCount = 0;
    std::uint64_t blobGcCount = 0;
    std::uint64_t blobGcAbandonedCount = 0;
    std::uint64_t blobBytesWritten = 0;
    std::uint64_t blobBytesRead = 0;
    std::uint64_t bloomNegativeCount = 0;      // tables that a filter ruled out
    std::uint64_t bloomFalsePositiveCount = 0; // tables that it did not rule out and that lack the key
    std::uint64_t stallCount = 0;              // groups of writes that had to wait
    std::uint64_t stallMicroseconds = 0;

    // Gauges.
    std::uint64_t level0TableCount = 0; // primary tables and those of indexes
    std::uint64_t level1TableCount = 0;
    std::uint64_t tableBytes = 0;
    std::uint64_t memtableCount = 0; // the active one included
    std::uint64_t memtableBytes = 0;
    std::uint64_t walBytes = 0; // of the log that is written to
    std::uint64_t blobFileCount = 0;
    std::uint64_t blobBytes = 0;     // of all blob files
    std::uint64_t deadBlobBytes = 0; // of them, bytes that no record of a table refers to
    std::uint64_t lastCommittedSequence = 0;
    std::uint64_t durableSequence = 0;
    ZnEmbeddedDbStatus backgroundError;
};
