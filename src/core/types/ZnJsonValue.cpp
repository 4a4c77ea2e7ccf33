#include "core/types/ZnJsonValue.h"

#include "core/types/ZnJsonArray.h"
#include "core/types/ZnJsonCursor.h"
#include "core/types/ZnJsonObject.h"
#include "core/types/ZnNumberText.h"

#include <cmath>
#include <limits>
#include <stdexcept>

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

struct ZnJsonTree_ {
    using Cursor = ZnJsonCursor_<ZnJsonValue>;
    using ConstCursor = ZnJsonCursor_<const ZnJsonValue>;

    static void copy(const ZnJsonValue& from, ZnJsonValue& to);
    static bool equal(const ZnJsonValue& left, const ZnJsonValue& right);
    static void release(ZnJsonValue& root) noexcept;

private:
    struct CopyStep_ {
        ConstCursor from;
        ZnJsonValue* to; // in a parent that is not appended to while its child is open
    };
    struct ComparedStep_ {
        ConstCursor left;
        ConstCursor right;
    };

    static void copyShallow_(const ZnJsonValue& from, ZnJsonValue& to);
    static ZnJsonValue& slotFor_(CopyStep_& step);
    static bool equalShallow_(const ZnJsonValue& left, const ZnJsonValue& right);
    static ZnJsonValue* nextContainer_(Cursor& cursor) noexcept;
};

/// Copies a scalar; of a container only the kind.
void ZnJsonTree_::copyShallow_(const ZnJsonValue& from, ZnJsonValue& to) {
    if (from.isArray()) {
        to.arrayValue_.reset(new ZnJsonArray);
        to.arrayValue_->reserve(from.arrayValue_->size());
    } else if (from.isObject()) {
        to.objectValue_.reset(new ZnJsonObject);
    } else {
        to.boolValue_ = from.boolValue_;
        to.intValue_ = from.intValue_;
        to.doubleValue_ = from.doubleValue_;
        to.stringValue_ = from.stringValue_;
    }
    to.type_ = from.type_;
}

ZnJsonValue& ZnJsonTree_::slotFor_(CopyStep_& step) {
    return step.from.isArray() ? step.to->array()->appendNull()
                               : step.to->object()->slotNearEnd(step.from.name());
}

void ZnJsonTree_::copy(const ZnJsonValue& from, ZnJsonValue& to) {
    copyShallow_(from, to);
    if (!from.isContainer_())
        return;
    ZnJsonPath_<CopyStep_> path;
    path.push(CopyStep_{ConstCursor(from), &to});
    while (!path.isEmpty()) {
        CopyStep_& step = path.top();
        if (step.from.atEnd()) {
            path.pop();
            continue;
        }
        ZnJsonValue& slot = slotFor_(step);
        const ZnJsonValue& child = step.from.take();
        copyShallow_(child, slot);
        if (child.isContainer_())
            path.push(CopyStep_{ConstCursor(child), &slot});
    }
}

/// Compares scalars; of containers only kind and size.
bool ZnJsonTree_::equalShallow_(const ZnJsonValue& left, const ZnJsonValue& right) {
    if (left.type_ != right.type_)
        return false;
    switch (left.type_) {
    case JsonType::Null:
        return true;
    case JsonType::Boolean:
        return left.boolValue_ == right.boolValue_;
    case JsonType::Integer:
        return left.intValue_ == right.intValue_;
    case JsonType::Double:
        return left.doubleValue_ == right.doubleValue_ && left.stringValue_ == right.stringValue_;
    case JsonType::String:
        return left.stringValue_ == right.stringValue_;
    case JsonType::Object:
        return left.objectValue_->size() == right.objectValue_->size();
    case JsonType::Array:
        return left.arrayValue_->size() == right.arrayValue_->size();
    }
    return false;
}

bool ZnJsonTree_::equal(const ZnJsonValue& left, const ZnJsonValue& right) {
    if (!equalShallow_(left, right))
        return false;
    if (!left.isContainer_())
        return true;
    ZnJsonPath_<ComparedStep_> path;
    path.push(ComparedStep_{ConstCursor(left), ConstCursor(right)});
    while (!path.isEmpty()) {
        ComparedStep_& step = path.top();
        if (step.left.atEnd()) {
            path.pop();
            continue;
        }
        if (!step.left.isArray() && step.left.name() != step.right.name())
            return false;
        const ZnJsonValue& leftChild = step.left.take();
        const ZnJsonValue& rightChild = step.right.take();
        if (!equalShallow_(leftChild, rightChild))
            return false;
        if (leftChild.isContainer_())
            path.push(ComparedStep_{ConstCursor(leftChild), ConstCursor(rightChild)});
    }
    return true;
}

ZnJsonValue* ZnJsonTree_::nextContainer_(Cursor& cursor) noexcept {
    while (!cursor.atEnd()) {
        ZnJsonValue& child = cursor.take();
        if (child.isContainer_())
            return &child;
    }
    return nullptr;
}

/// Deletes containers from the innermost outwards, so that no destructor meets a container inside a
/// container.
void ZnJsonTree_::release(ZnJsonValue& root) noexcept {
    ZnJsonPath_<Cursor> path;
    path.push(Cursor(root));
    while (!path.isEmpty()) {
        if (ZnJsonValue* child = nextContainer_(path.top())) {
            path.push(Cursor(*child));
            continue;
        }
        ZnJsonValue& emptied = path.top().container();
        path.pop();
        emptied.type_ = JsonType::Null;
        emptied.objectValue_.reset();
        emptied.arrayValue_.reset();
    }
}

ZnJsonValue::ZnJsonValue(ZnJsonObject value)
    : type_(JsonType::Object), objectValue_(new ZnJsonObject(std::move(value))) {}

ZnJsonValue::ZnJsonValue(ZnJsonArray value)
    : type_(JsonType::Array), arrayValue_(new ZnJsonArray(std::move(value))) {}

ZnJsonValue& ZnJsonValue::operator=(ZnJsonValue&& other) noexcept {
    // By way of a local: `other` may lie inside the tree that this value gives up.
    ZnJsonValue incoming(std::move(other));
    std::swap(type_, incoming.type_);
    boolValue_ = incoming.boolValue_;
    intValue_ = incoming.intValue_;
    doubleValue_ = incoming.doubleValue_;
    stringValue_ = std::move(incoming.stringValue_);
    objectValue_.swap(incoming.objectValue_);
    arrayValue_.swap(incoming.arrayValue_);
    return *this;
}

void ZnJsonValue::DeleteContainer_::operator()(ZnJsonObject* object) const noexcept {
    delete object;
}

void ZnJsonValue::DeleteContainer_::operator()(ZnJsonArray* array) const noexcept {
    delete array;
}

void ZnJsonValue::copyFrom_(const ZnJsonValue& other) {
    ZnJsonTree_::copy(other, *this);
}

void ZnJsonValue::releaseTree_() noexcept {
    ZnJsonTree_::release(*this);
}

ZnString ZnJsonValue::toStringOr(const ZnString& fallback) const {
    std::string text;
    switch (type_) {
    case JsonType::Null:
        return "null";
    case JsonType::Boolean:
        return boolValue_ ? "true" : "false";
    case JsonType::Integer:
        return ZnString::number(static_cast<long long>(intValue_));
    case JsonType::Double:
        if (keepsDigits_())
            return stringValue_;
        zn::detail::appendFixed(text, doubleValue_);
        return text;
    case JsonType::String:
        return stringValue_;
    case JsonType::Object:
    case JsonType::Array:
        break;
    }
    return fallback;
}

bool ZnJsonValue::toBool(bool fallback) const {
    switch (type_) {
    case JsonType::Boolean:
        return boolValue_;
    case JsonType::Integer:
        return intValue_ != 0;
    case JsonType::Double:
        return double_() != 0;
    default:
        return fallback;
    }
}

int ZnJsonValue::toInt(int fallback) const {
    switch (type_) {
    case JsonType::Boolean:
        return boolValue_ ? 1 : 0;
    case JsonType::Integer:
        return static_cast<int>(static_cast<std::uint32_t>(intValue_));
    case JsonType::Double:
        return truncated<int>(double_());
    default:
        return fallback;
    }
}

long long ZnJsonValue::toLongLong() const {
    switch (type_) {
    case JsonType::Boolean:
        return boolValue_ ? 1 : 0;
    case JsonType::Integer:
        return intValue_;
    case JsonType::Double:
        return truncated<long long>(double_());
    default:
        return 0;
    }
}

double ZnJsonValue::toDouble(double fallback, int decimals) const {
    switch (type_) {
    case JsonType::Boolean:
        return boolValue_ ? 1.0 : 0.0;
    case JsonType::Integer:
        return static_cast<double>(intValue_);
    case JsonType::Double:
        break;
    default:
        return fallback;
    }
    const double value = double_();
    if (decimals <= 0)
        return value;
    const double scale = std::pow(10.0, decimals);
    const double scaled = value * scale;
    // A value that does not survive scaling has no decimal places to round off.
    return std::isfinite(scaled) && std::isfinite(scale) ? std::round(scaled) / scale : value;
}

double ZnJsonValue::keptDouble_() const {
    return zn::detail::nearestDouble(stringValue_.view());
}

const ZnString& ZnJsonValue::noText_() noexcept {
    static const ZnString* const kNone = new ZnString; // never destroyed: threads may read it while the process ends
    return *kNone;
}

ZnJsonObject ZnJsonValue::toObject() const {
    return objectValue_ ? *objectValue_ : ZnJsonObject();
}

ZnJsonArray ZnJsonValue::toArray() const {
    return arrayValue_ ? *arrayValue_ : ZnJsonArray();
}

bool ZnJsonValue::operator==(const ZnJsonValue& other) const {
    return ZnJsonTree_::equal(*this, other);
}

const ZnJsonValue& ZnJsonArray::at(std::size_t index) const {
    if (index >= values_.size())
        throw std::out_of_range("Index out of bounds");
    return values_[index];
}

ZnJsonValue& ZnJsonArray::at(std::size_t index) {
    if (index >= values_.size())
        throw std::out_of_range("Index out of bounds");
    return values_[index];
}

bool ZnJsonArray::operator==(const ZnJsonArray& other) const {
    return values_ == other.values_;
}

const ZnJsonValue& ZnJsonObject::value(std::string_view name) const {
    static const ZnJsonValue* const kNull =
        new ZnJsonValue; // never destroyed: threads may read it while the process ends
    const auto at = members_.find(name);
    return at == members_.end() ? *kNull : at->second;
}

bool ZnJsonObject::operator==(const ZnJsonObject& other) const {
    return members_ == other.members_;
}
