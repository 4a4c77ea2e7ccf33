#pragma once

#include "core/types/ZnString.h"

/// What tells one state of a file or directory from another without reading it. Links are followed.
///
/// Thread: a value.
struct ZnFileIdentity {
    enum class Kind { Missing, File, Directory, Pipe, Other }; // Pipe: opening it could block (also: socket)

    static ZnFileIdentity of(const ZnString& path);
    /// The time by which files are stamped, in nanoseconds since 1970.
    static long long stampNowNs();

    bool operator==(const ZnFileIdentity& other) const noexcept = default;
    Kind kind = Kind::Missing;
    unsigned long long device = 0;
    unsigned long long inode = 0;
    unsigned long long sizeBytes = 0;
    long long writeNs = 0;           // last change of the content, as programs may set it
    bool isReadableByOthers = false; // by its group or by everybody
    long long statusNs = 0;          // last change in any way, by the system's clock; 0 for a missing one
};

/// The directory of the running program, ending in "/"; empty when the system does not tell.
ZnString programDirectory();
