#include "core/types/ZnJsonValue.h"

#include "core/types/ZnJsonArena.h"
#include "core/types/ZnJsonArray.h"
#include "core/types/ZnJsonObject.h"
#include "core/types/ZnJsonPath.h"
#include "core/types/ZnNumberText.h"

#include <cmath>
#include <limits>
#include <memory>

namespace {

/// Truncated towards 0, and held within the range of the result.
template <typename Integer>
Integer truncated(double value) {
    // Both limits are exact as doubles: -2^n, and 2^n, which is one above the largest value.
    constexpr double kLowest = static_cast<double>(std::numeric_limits<Integer>::min());
    if (std::isnan(value))
        return 0;
    if (value >= -kLowest)
        return std::numeric_limits<Integer>::max();
    return value <= kLowest ? std::numeric_limits<Integer>::min() : static_cast<Integer>(value);
}

} // namespace

/// Walks whole trees. Names and values of an object are walked alike: each name is a String.
struct ZnJsonTree_ {
    static void copy(const ZnJsonCell_& from, ZnJsonCell_& to);
    static bool equal(const ZnJsonCell_& left, const ZnJsonCell_& right);
    static void release(ZnJsonCell_& root) noexcept;

private:
    struct CopyStep_ {
        const ZnJsonValue* from;
        const ZnJsonValue* end;
        ZnJsonValue* to;
    };
    struct ComparedStep_ {
        const ZnJsonValue* left;
        const ZnJsonValue* leftEnd;
        const ZnJsonValue* right;
    };
    struct ReleaseStep_ {
        const ZnJsonCell_* container;
        const ZnJsonValue* at;
        const ZnJsonValue* end;
    };

    static void copyShallow_(const ZnJsonCell_& from, ZnJsonCell_& to, ZnJsonArena_* arena);
    static CopyStep_ stepInto_(const ZnJsonCell_& from, ZnJsonCell_& to);
    static bool equalShallow_(const ZnJsonCell_& left, const ZnJsonCell_& right);
    static ReleaseStep_ stepInto_(const ZnJsonCell_& container);
    static const ZnJsonCell_* nextContainer_(ReleaseStep_& step, ZnJsonReleaser_& blocks) noexcept;
};

/// Copies a scalar or a text; of a container as many Nulls.
void ZnJsonTree_::copyShallow_(const ZnJsonCell_& from, ZnJsonCell_& to, ZnJsonArena_* arena) {
    if (!from.hasBlock()) {
        to = from;
    } else if (from.isContainer()) {
        to = ZnJsonCell_(from.type());
        zn::detail::moveToBlock(to, from.valueCount(), arena);
        std::uninitialized_value_construct_n(to.values(), from.valueCount());
        to.block.count = from.block.count;
    } else {
        constexpr int kKindMask = ZnJsonCell_::kTypeMask | ZnJsonCell_::kKeepsDigits;
        zn::detail::setText(to, static_cast<std::uint8_t>(from.block.kind & kKindMask), from.text(), arena);
    }
}

ZnJsonTree_::CopyStep_ ZnJsonTree_::stepInto_(const ZnJsonCell_& from, ZnJsonCell_& to) {
    return {from.values(), from.values() + from.valueCount(), to.values()};
}

void ZnJsonTree_::copy(const ZnJsonCell_& from, ZnJsonCell_& to) {
    if (!from.isContainer())
        return copyShallow_(from, to, nullptr);
    ZnJsonArena_ arena;
    copyShallow_(from, to, &arena);
    ZnJsonPath_<CopyStep_> path;
    path.push(stepInto_(from, to));
    while (!path.isEmpty()) {
        CopyStep_& step = path.top();
        if (step.from == step.end) {
            path.pop();
            continue;
        }
        const ZnJsonCell_& child = (step.from++)->cell_;
        ZnJsonCell_& slot = (step.to++)->cell_;
        copyShallow_(child, slot, &arena);
        if (child.isContainer())
            path.push(stepInto_(child, slot));
    }
}

/// Compares scalars and texts; of containers only kind and size.
bool ZnJsonTree_::equalShallow_(const ZnJsonCell_& left, const ZnJsonCell_& right) {
    if (left.type() != right.type())
        return false;
    switch (left.type()) {
    case JsonType::Null: return true;
    case JsonType::Boolean:
    case JsonType::Integer: return left.number.bits == right.number.bits;
    case JsonType::Double:
        if (left.keepsDigits() || right.keepsDigits())
            return left.keepsDigits() && right.keepsDigits() && left.text() == right.text();
        return left.asDouble() == right.asDouble();
    case JsonType::String: return left.text() == right.text();
    case JsonType::Object:
    case JsonType::Array: return left.block.count == right.block.count;
    }
    return false;
}

bool ZnJsonTree_::equal(const ZnJsonCell_& left, const ZnJsonCell_& right) {
    if (!equalShallow_(left, right))
        return false;
    if (!left.isContainer())
        return true;
    ZnJsonPath_<ComparedStep_> path;
    path.push({left.values(), left.values() + left.valueCount(), right.values()});
    while (!path.isEmpty()) {
        ComparedStep_& step = path.top();
        if (step.left == step.leftEnd) {
            path.pop();
            continue;
        }
        const ZnJsonCell_& leftChild = (step.left++)->cell_;
        const ZnJsonCell_& rightChild = (step.right++)->cell_;
        if (!equalShallow_(leftChild, rightChild))
            return false;
        if (leftChild.isContainer())
            path.push({leftChild.values(), leftChild.values() + leftChild.valueCount(), rightChild.values()});
    }
    return true;
}

ZnJsonTree_::ReleaseStep_ ZnJsonTree_::stepInto_(const ZnJsonCell_& container) {
    return {&container, container.values(), container.values() + container.valueCount()};
}

/// Gives back the blocks of texts on the way to the next container that has one; null at the end.
const ZnJsonCell_* ZnJsonTree_::nextContainer_(ReleaseStep_& step, ZnJsonReleaser_& blocks) noexcept {
    while (step.at != step.end) {
        const ZnJsonCell_& child = (step.at++)->cell_;
        if (!child.hasBlock())
            continue;
        if (child.isContainer())
            return &child;
        blocks.give(child);
    }
    return nullptr;
}

/// Gives back every block, from the innermost outwards. The values in them just cease to be: their destructors would
/// do the same, by recursion.
void ZnJsonTree_::release(ZnJsonCell_& root) noexcept {
    ZnJsonReleaser_ blocks;
    if (root.isContainer()) {
        ZnJsonPath_<ReleaseStep_> path;
        path.push(stepInto_(root));
        for (;;) {
            if (const ZnJsonCell_* child = nextContainer_(path.top(), blocks)) {
                path.push(stepInto_(*child));
                continue;
            }
            const ZnJsonCell_* const emptied = path.top().container;
            path.pop();
            if (path.isEmpty())
                break; // the root's block is given back below
            blocks.give(*emptied);
        }
    }
    blocks.give(root);
    root = ZnJsonCell_();
}

void ZnJsonNode_::copyFrom_(const ZnJsonNode_& other) {
    try {
        ZnJsonTree_::copy(other.cell_, cell_);
    } catch (...) {
        if (cell_.hasBlock())
            release_(); // no destructor runs for an object whose constructor has failed
        throw;
    }
}

void ZnJsonNode_::release_() noexcept {
    ZnJsonTree_::release(cell_);
}

bool ZnJsonNode_::isEqual_(const ZnJsonNode_& other) const {
    return ZnJsonTree_::equal(cell_, other.cell_);
}

ZnJsonValue::ZnJsonValue(std::string_view value) : ZnJsonValue() {
    zn::detail::setText(cell_, static_cast<std::uint8_t>(JsonType::String), value, nullptr);
}

ZnJsonValue::ZnJsonValue(ZnJsonObject value) noexcept : ZnJsonNode_(value.takeCell_(JsonType::Object)) {}

ZnJsonValue::ZnJsonValue(ZnJsonArray value) noexcept : ZnJsonNode_(value.takeCell_(JsonType::Array)) {}

const ZnJsonObject* ZnJsonValue::object() const noexcept {
    return isObject() ? static_cast<const ZnJsonObject*>(static_cast<const ZnJsonNode_*>(this)) : nullptr;
}

ZnJsonObject* ZnJsonValue::object() noexcept {
    return isObject() ? static_cast<ZnJsonObject*>(static_cast<ZnJsonNode_*>(this)) : nullptr;
}

const ZnJsonArray* ZnJsonValue::array() const noexcept {
    return isArray() ? static_cast<const ZnJsonArray*>(static_cast<const ZnJsonNode_*>(this)) : nullptr;
}

ZnJsonArray* ZnJsonValue::array() noexcept {
    return isArray() ? static_cast<ZnJsonArray*>(static_cast<ZnJsonNode_*>(this)) : nullptr;
}

ZnString ZnJsonValue::toStringOr(const ZnString& fallback) const {
    std::string text;
    switch (type()) {
    case JsonType::Null: return "null";
    case JsonType::Boolean: return cell_.number.bits != 0 ? "true" : "false";
    case JsonType::Integer: return ZnString::number(cell_.number.bits);
    case JsonType::Double:
        if (cell_.keepsDigits())
            return ZnString(cell_.text());
        zn::detail::appendFixed(text, cell_.asDouble());
        return text;
    case JsonType::String: return ZnString(cell_.text());
    case JsonType::Object:
    case JsonType::Array: break;
    }
    return fallback;
}

bool ZnJsonValue::toBool(bool fallback) const {
    switch (type()) {
    case JsonType::Boolean:
    case JsonType::Integer: return cell_.number.bits != 0;
    case JsonType::Double: return double_() != 0;
    default: return fallback;
    }
}

int ZnJsonValue::toInt(int fallback) const {
    switch (type()) {
    case JsonType::Boolean:
    case JsonType::Integer: return static_cast<int>(static_cast<std::uint32_t>(cell_.number.bits));
    case JsonType::Double: return truncated<int>(double_());
    default: return fallback;
    }
}

long long ZnJsonValue::toLongLong() const {
    switch (type()) {
    case JsonType::Boolean:
    case JsonType::Integer: return cell_.number.bits;
    case JsonType::Double: return truncated<long long>(double_());
    default: return 0;
    }
}

double ZnJsonValue::toDouble(double fallback, int decimals) const {
    switch (type()) {
    case JsonType::Boolean:
    case JsonType::Integer: return static_cast<double>(cell_.number.bits);
    case JsonType::Double: break;
    default: return fallback;
    }
    const double value = double_();
    if (decimals <= 0)
        return value;
    const double scale = std::pow(10.0, decimals);
    const double scaled = value * scale;
    // A value that does not survive scaling has no decimal places to round off.
    return std::isfinite(scaled) && std::isfinite(scale) ? std::round(scaled) / scale : value;
}

double ZnJsonValue::double_() const {
    return cell_.keepsDigits() ? zn::detail::nearestDouble(cell_.text()) : cell_.asDouble();
}

ZnJsonObject ZnJsonValue::toObject() const {
    return isObject() ? *object() : ZnJsonObject();
}

ZnJsonArray ZnJsonValue::toArray() const {
    return isArray() ? *array() : ZnJsonArray();
}
