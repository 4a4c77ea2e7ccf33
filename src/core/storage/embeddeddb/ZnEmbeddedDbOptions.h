#pragma once

#include <cstdint>

/// What a write waits for before it returns.
enum class ZnEmbeddedDbDurability {
    Default,  // what the store was opened with
    Buffered, // the system has it: it survives the end of the process
    Synced,   // it is on stable storage: it survives a power failure
    Periodic  // as Buffered, and everything is brought to stable storage every syncIntervalMs
};

/// How a store is opened. Thread: a value.
struct ZnEmbeddedDbOptions {
    bool createIfMissing = true;
    bool errorIfExists = false;
    /// Opens beside a process that writes, shows what was there at that moment, and changes nothing on the
    /// disk.
    bool readOnly = false;

    /// From this size on the records in memory go into a table. 4 KiB to 4 GiB; other values count as the
    /// nearest.
    std::uint64_t memtableSizeBytes = 16 * 1024 * 1024;
    /// Larger values go into a blob file; a value of exactly this size stays in the table.
    std::uint64_t blobThresholdBytes = 4096;
    /// Of writes that do not say; not Default.
    ZnEmbeddedDbDurability durability = ZnEmbeddedDbDurability::Buffered;
    std::uint32_t syncIntervalMs = 1000;
    /// Writers wait while so many full memtables have not yet been written to tables; at least 1.
    std::uint32_t maxImmutableMemtables = 4;
    /// After so long without a write the records in memory go into tables, however few; 0: never.
    std::uint32_t idleFlushMs = 5000;
    /// With more tables of level 1 of one kind than this, they are merged in the background, which writes all of that
    /// kind anew. 0: only compact() merges them.
    std::uint32_t maxLevel1Tables = 0;

    /// Room for what reading keeps open, about 16 KiB a blob file; 0: a blob file is opened for every value.
    std::uint64_t sharedTableStateSize = 8 * 1024 * 1024;
    /// Reads every record once on opening, which finds a damage of filters and indexes, and of blob
    /// references. Without it opening is faster, searches are slower, and blob files that nothing uses stay.
    bool verifyFilters = true;
    /// Opens a store whose log is damaged with what stands in front of the damage, instead of refusing. What
    /// is lost is told in the log.
    bool salvageLog = false;
    /// Manifests that stay on disk, the one in force included; at least 1.
    std::uint32_t keepManifests = 2;
    /// Tells other processes of this user of every change of the tables; see ZnEmbeddedDb::watch.
    bool notifyChanges = false;
};
