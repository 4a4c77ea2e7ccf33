#pragma once

#include "core/platform/ZnFileDescriptor.h"
#include "core/types/ZnString.h"

#include <cstddef>
#include <memory>

/// Memory that processes of one user share under a name, which lives as long as someone has it open.
///
/// Everyone who has the object open holds a shared lock on its descriptor, which ends with the process. Who can take
/// the lock for itself alone is the only one: at the beginning it may make the content, at the end it takes the name
/// away. So nothing is left behind by processes that end in order, and what others leave is taken over by who comes
/// next. Thread: any may open; an object belongs to whoever holds it. Nothing waits longer than kOpenWaitMs. A child
/// that has been forked must not use its parent's objects, and leaves the name alone when it ends.
class ZnSharedMemory {
public:
    static constexpr int kOpenWaitMs = 5;

    /// Both get the mapped bytes; either may be null.
    struct Content {
        void (*takeOver)(void* data) = nullptr;       // nobody else has it open; new bytes are 0
        bool (*isUsable)(const void* data) = nullptr; // others have it open
    };

    /// Opens the object, or makes it for its user alone. Null, with the reason, when the system refuses; when the name
    /// belongs to something else than a file of this user with `byteCount` bytes that nobody else may use; or when
    /// another process stands still in the middle of making it.
    static std::unique_ptr<ZnSharedMemory> open(const ZnString& name, std::size_t byteCount, const Content& content,
                                                ZnString* errorText);
    /// Takes away this user's objects that nobody has open, and whose names begin and end so.
    static void removeUnused(const ZnString& prefix, const ZnString& suffix);

    ~ZnSharedMemory();
    ZnSharedMemory(const ZnSharedMemory&) = delete;
    ZnSharedMemory& operator=(const ZnSharedMemory&) = delete;

    void* data() const noexcept { return data_; }

private:
    ZnSharedMemory(ZnString name, std::size_t byteCount);
    bool tryOpen_(const Content& content, ZnString* errorText);
    bool map_(bool isAlone, ZnString* errorText);
    bool isNamed_() const;
    void removeNameIfLast_();

    const ZnString name_;
    const std::size_t byteCount_;
    const unsigned forkCount_; // when it was made
    bool isOurs_ = false;      // the descriptor is what it should be
    ZnFileDescriptor descriptor_;
    void* data_ = nullptr;
};
