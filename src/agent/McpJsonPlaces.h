#pragma once

#include <string_view>
#include <vector>

// Where things stand in the text of an allowlist, for messages about it.
namespace mcp {

struct MemberPlace {
    std::string_view name; // as written, between its quotes
    int line;
};

/// One element of the array "services".
struct EntryPlace {
    int line;
    std::vector<MemberPlace> members; // of an object, in their order
};

/// The elements in their order. `text` must be a JSON text that has been parsed before: only its structure is followed.
std::vector<EntryPlace> placesOfServices(std::string_view text);

} // namespace mcp
