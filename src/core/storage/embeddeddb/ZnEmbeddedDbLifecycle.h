#pragma once

#include "core/storage/embeddeddb/ZnEmbeddedDbOptions.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbStatus.h"
#include "core/types/ZnString.h"

namespace znEmbeddedDbDetail {

class Recovery_;
struct RecoveredStore_;
struct Store_;

/// Opens and closes a store.
///
/// Thread: the owner's of the store. Owner: made for one call, as a local.
class LifecycleManager_ {
public:
    explicit LifecycleManager_(Store_& store) : store_(store) {}

    /// After a failure the store is closed, and its lock free.
    ZnEmbeddedDbStatus open(const ZnString& path, const ZnEmbeddedDbOptions& options);
    /// Never fails; safe for a store that was never opened.
    void close();

private:
    ZnEmbeddedDbStatus openFiles_();
    ZnEmbeddedDbStatus prepareDirectory_();
    ZnEmbeddedDbStatus takeOver_(Recovery_* recovery, RecoveredStore_* recovered);
    ZnEmbeddedDbStatus beginToWrite_(Recovery_* recovery);
    ZnEmbeddedDbStatus pinBlobFiles_();
    void noteIndexes_(const RecoveredStore_& recovered);
    void waitForBackgroundWork_();
    void resetState_();

    Store_& store_;
};

} // namespace znEmbeddedDbDetail
