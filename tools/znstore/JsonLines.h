#pragma once

#include "core/storage/embeddeddb/ZnEmbeddedDbBatch.h"
#include "core/types/ZnString.h"

#include <string>
#include <string_view>

// A record as one line of JSON, in which every sequence of bytes comes back as it was:
//
//     {"key":TEXT,"value":TEXT,"indexKeys":{"NAME":[TEXT,...],...}}
//
// TEXT is a string where the bytes are valid UTF-8, and {"hex":"00ff"} where they are not. Either form is read
// everywhere; "indexKeys" may be left out.
namespace znstore {

/// Without the line feed.
void appendRecordJson(std::string* out, std::string_view key, std::string_view value,
                      const ZnEmbeddedDbIndexKeys& indexKeys);
/// False, with the reason, for a line that is no record, or one that no store takes.
bool parseRecordJson(std::string_view line, ZnEmbeddedDbBatch::Operation* put, ZnString* errorText);

} // namespace znstore
