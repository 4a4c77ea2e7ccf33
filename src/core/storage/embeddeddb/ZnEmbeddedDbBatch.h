#pragma once

#include "core/types/ZnByteArray.h"
#include "core/types/ZnByteView.h"
#include "core/types/ZnMap.h"
#include "core/types/ZnString.h"
#include "core/types/ZnVector.h"

#include <cstddef>
#include <utility>
#include <vector>

/// The secondary keys of one record, by the name of the index. An index name has 1 to 64 bytes of letters,
/// digits, "_",
/// "." and "-", the first a letter or "_", and is not "true", "false" or "null".
using ZnEmbeddedDbIndexKeys = ZnMap<ZnString, ZnVector<ZnByteArray>>;

/// Changes that are made together or not at all, in the order in which they were added.
///
/// Thread: a value. Nothing is checked before it is written.
class ZnEmbeddedDbBatch {
public:
    struct Operation {
        bool isRemove = false;
        ZnByteArray key;
        ZnByteArray value;
        ZnEmbeddedDbIndexKeys indexKeys;
    };

    void put(ZnByteView key, ZnByteView value, ZnEmbeddedDbIndexKeys indexKeys = {}) {
        operations_.push_back({false, ZnByteArray(key.view()), ZnByteArray(value.view()), std::move(indexKeys)});
    }
    void remove(ZnByteView key) { operations_.push_back({true, ZnByteArray(key.view()), {}, {}}); }
    void clear() noexcept { operations_.clear(); }
    /// Number of changes.
    std::size_t size() const noexcept { return operations_.size(); }
    const std::vector<Operation>& operations() const noexcept { return operations_; }

private:
    std::vector<Operation> operations_;
};
