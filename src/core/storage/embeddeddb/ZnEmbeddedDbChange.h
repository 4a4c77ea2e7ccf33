#pragma once

#include <cstdint>

/// What the writer of a store tells when other tables have come into force. Thread: a value.
struct ZnEmbeddedDbChange {
    std::uint64_t lastCommittedSequence = 0; // of the last write until then, be it in tables or in the log
    std::uint64_t manifestId = 0;            // of the manifest in force
};
