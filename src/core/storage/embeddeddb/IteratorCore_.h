#pragma once

#include "core/storage/embeddeddb/ReadView_.h"
#include "core/storage/embeddeddb/ZnEmbeddedDb.h"

namespace znEmbeddedDbDetail {

/// Iterators over a view, which must be one without an active memtable. They begin on their first record.
ZnEmbeddedDbIterator openScan(ReadViewPtr_ view, const ZnEmbeddedDbRange& range);
ZnEmbeddedDbIterator openIndexLookup(ReadViewPtr_ view, const ZnString& indexName, std::string_view secondaryKey);
ZnEmbeddedDbIterator openIndexScan(ReadViewPtr_ view, const ZnString& indexName,
                                   const ZnEmbeddedDbRange& secondaryKeys);

} // namespace znEmbeddedDbDetail
