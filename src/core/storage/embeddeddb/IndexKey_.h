#pragma once

#include <string>
#include <string_view>

// The key of a record of an index table, made of a secondary key and the primary key that has it:
//
//   +---------------------------------------------+-------+-------------+
//   | secondary key, each byte 00 written 00 FF   | 00 01 | primary key |
//   +---------------------------------------------+-------+-------------+
//
// Index keys stand in the order of (secondary key, primary key), and all that have one secondary key, in a row: they
// begin with the same bytes, up to and including 00 01, and no others do.
namespace znEmbeddedDbDetail {

/// Appends what all index keys of `secondary` begin with; with the primary key behind it, it is an index key.
void appendIndexPrefix(std::string* out, std::string_view secondary);
void appendIndexKey(std::string* out, std::string_view secondary, std::string_view primary);
/// False, with the outputs as they were, for bytes that are no index key. `*primary` is a view of `indexKey`.
bool splitIndexKey(std::string_view indexKey, std::string* secondary, std::string_view* primary);

} // namespace znEmbeddedDbDetail
