#pragma once

#include "core/storage/embeddeddb/ZnEmbeddedDbChange.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbOptions.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbStatus.h"
#include "core/types/ZnString.h"

#include <functional>

namespace znEmbeddedDbDetail {

class Recovery_;
struct RecoveredStore_;
struct Store_;

/// Opens and closes a store, and brings one that was opened to read up to date.
///
/// Thread: the owner's of the store; refresh() any. Owner: made for one call, as a local.
class LifecycleManager_ {
public:
    explicit LifecycleManager_(Store_& store) : store_(store) {}

    /// After a failure the store is closed, and its lock free.
    ZnEmbeddedDbStatus open(const ZnString& path, const ZnEmbeddedDbOptions& options);
    /// Never fails; safe for a store that was never opened.
    void close();
    ZnEmbeddedDbStatus refresh();
    ZnEmbeddedDbStatus watch(std::function<void(const ZnEmbeddedDbChange&)> callback);

private:
    ZnEmbeddedDbStatus openFiles_();
    ZnEmbeddedDbStatus prepareDirectory_();
    ZnEmbeddedDbStatus takeOver_(Recovery_* recovery, RecoveredStore_* recovered);
    void openNotifier_();
    ZnEmbeddedDbStatus beginToWrite_(Recovery_* recovery);
    void noteIndexes_(const RecoveredStore_& recovered);
    void waitForBackgroundWork_();
    void resetState_();

    Store_& store_;
};

} // namespace znEmbeddedDbDetail
