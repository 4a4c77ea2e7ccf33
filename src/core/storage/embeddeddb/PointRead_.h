#pragma once

#include "core/storage/embeddeddb/ReadView_.h"

#include <string_view>

namespace znEmbeddedDbDetail {

/// Reads the record of one key: its value and its secondary keys, each only when asked for (the pointer is
/// not null). Code 1, with the outputs as they were, when the view has no such key.
ZnEmbeddedDbStatus readRecord(const ReadView_& view, std::string_view key, ZnByteArray* value,
                              IndexKeys_* indexKeys = nullptr);

} // namespace znEmbeddedDbDetail
