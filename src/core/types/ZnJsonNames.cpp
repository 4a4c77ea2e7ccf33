#include "core/types/ZnJsonNames.h"

#include <cstdint>
#include <memory>
#include <numeric>
#include <utility>
#include <vector>

namespace {

void moveMember(ZnJsonValue* from, ZnJsonValue* to) noexcept {
    to[0] = std::move(from[0]);
    to[1] = std::move(from[1]);
}

/// Moves the member at order[k] to place k, for every k, along the cycles of the permutation. Uses up `order`.
void permute(ZnJsonValue* members, std::vector<std::uint32_t>& order) noexcept {
    for (std::uint32_t start = 0; start < order.size(); ++start) {
        if (order[start] == start)
            continue;
        ZnJsonValue first[2];
        moveMember(members + 2 * std::size_t{start}, first);
        std::uint32_t hole = start;
        while (order[hole] != start) {
            const std::uint32_t next = order[hole];
            moveMember(members + 2 * std::size_t{next}, members + 2 * std::size_t{hole});
            order[hole] = hole;
            hole = next;
        }
        moveMember(first, members + 2 * std::size_t{hole});
        order[hole] = hole;
    }
}

void dropRepeated(ZnJsonCell_& object) noexcept {
    ZnJsonValue* kept = object.values();
    ZnJsonValue* const end = kept + object.valueCount();
    for (ZnJsonValue* at = kept + 2; at != end; at += 2) {
        if (at->string() != kept->string())
            kept += 2;
        if (at != kept)
            moveMember(at, kept);
    }
    std::destroy(kept + 2, end);
    object.block.count = static_cast<std::uint32_t>((kept + 2 - object.values()) / 2);
}

} // namespace

/// Sorts the places, not the members: four bytes for each, and nothing else, are needed besides.
void zn::detail::sortMembers(ZnJsonCell_& object) {
    if (object.block.count == 0)
        return;
    const ZnJsonValue* const members = object.values();
    const auto nameAt = [members](std::uint32_t place) { return members[2 * std::size_t{place}].string(); };
    std::vector<std::uint32_t> order(object.block.count);
    std::iota(order.begin(), order.end(), 0u);
    std::sort(order.begin(), order.end(), [&](std::uint32_t left, std::uint32_t right) {
        const int difference = compareNames(nameAt(left), nameAt(right));
        return difference != 0 ? difference < 0 : left < right;
    });
    permute(object.values(), order);
    dropRepeated(object);
}
